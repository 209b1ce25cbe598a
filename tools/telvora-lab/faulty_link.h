// SPDX-License-Identifier: Apache-2.0
//
// FaultyLink: what a bad network does to datagrams in one direction, decided by a random sequence that its
// seed determines.
#pragma once

#include <chrono>
#include <cstdint>
#include <random>
#include <vector>

namespace telvora::lab {

struct LinkFaults {
    // Probabilities, 0 to 1.
    double loss = 0;
    double duplicate = 0;  // of a datagram that isn't lost
    double reorder = 0;    // of each copy: it is held back, so that later ones overtake it
    // How long each copy takes, evenly distributed.
    std::chrono::milliseconds minDelay{0};
    std::chrono::milliseconds maxDelay{0};
};

class FaultyLink {
  public:
    // How much longer a datagram takes that others are to overtake.
    static constexpr std::chrono::milliseconds kHeldBack{50};

    FaultyLink(LinkFaults faults, uint64_t seed) : faults_(faults), random_(seed) {}

    // The fate of the next datagram: how long each of its copies takes; none where it is lost.
    std::vector<std::chrono::milliseconds> transit();

  private:
    double uniform();  // in [0, 1)

    const LinkFaults faults_;
    std::mt19937_64 random_;
};

}  // namespace telvora::lab
