// SPDX-License-Identifier: Apache-2.0
//
// Attacks on the daemon, each by a process of its own: on its threads, descriptors, memory, processor time,
// disk and servers. The canary and the soak use them.
#pragma once

#include <chrono>
#include <span>
#include <string>

#include "world.h"

namespace telvora::bench {

struct Attack {
    const char* name;
    const char* means;                           // for people
    bool entitled = true;                        // whether the attacker may open sessions
    void (*run)(const std::string& socketPath);  // until the process is killed
};
std::span<const Attack> allAttacks();
// Null if there is none of that name.
const Attack* attackNamed(const std::string& name);

// The servers of the attackers' bags: bag servers that hang, servers that drip, others that answer.
class AttackersServers {
  public:
    // Serves the bags in the world's laboratory. An answer that drips has `drips` bytes, one in each `pause`.
    // `world` outlives this object.
    AttackersServers(World& world, int drips, std::chrono::milliseconds pause);
    ~AttackersServers();
    AttackersServers(const AttackersServers&) = delete;
    AttackersServers& operator=(const AttackersServers&) = delete;

    // Whether the bag servers for the attackers answer.
    void letBagsHang(bool hang);

  private:
    struct Drippers;

    World& world_;
    const std::unique_ptr<Drippers> drippers_;
};

}  // namespace telvora::bench
