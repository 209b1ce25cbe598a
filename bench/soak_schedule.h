// SPDX-License-Identifier: Apache-2.0
//
// The disturbances of a soak, in an order that follows from the seed. Not thread-safe.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <random>

#include "attacks.h"
#include "soak_books.h"

namespace telvora::bench {

enum class Disturbance : uint8_t {
    serverFault,
    refusal,
    clientKill,
    fullDisk,
    clockJump,
    newBag,
    bagFault,
    reload
};
inline constexpr size_t kDisturbances = static_cast<size_t>(Disturbance::reload) + 1;
const char* nameOf(Disturbance disturbance);

// How the life of a daemon ends.
enum class Ending : uint8_t {
    quiet,  // told to, after its clients
    busy,   // told to, under load
    killed,
};
inline constexpr size_t kEndings = static_cast<size_t>(Ending::killed) + 1;
const char* nameOf(Ending ending);

struct Step {
    Disturbance disturbance;
    std::chrono::milliseconds duration;
    const Attack* attack;  // meanwhile
    uint32_t detail;       // chooses among the variants of the disturbance, which follow each other
};

class Schedule {
  public:
    explicit Schedule(uint64_t seed);

    Step nextStep();
    struct Life {
        size_t steps;
        Ending ending;
    };
    Life nextLife();

  private:
    // Numbers below the bound. Not std::uniform_int_distribution: its results differ between libraries.
    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }
    template <typename T>
    T dealt(std::vector<T>& deck, std::vector<T> whole);

    std::mt19937_64 random_;
    uint32_t detail_;
    std::vector<Disturbance> disturbances_;
    std::vector<const Attack*> attacks_;
    std::vector<Ending> endings_;
};

}  // namespace telvora::bench
