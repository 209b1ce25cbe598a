// SPDX-License-Identifier: Apache-2.0
#include "soak_schedule.h"

#include <unistd.h>

#include <utility>

namespace telvora::bench {
namespace {

constexpr std::chrono::milliseconds kShortest{200};
constexpr uint32_t kMostMore = 500;  // milliseconds
constexpr uint32_t kFewestSteps = 4;
constexpr uint32_t kMostMoreSteps = 8;

template <typename T, size_t count>
std::vector<T> allOf() {
    std::vector<T> all;
    for (size_t i = 0; i < count; ++i)
        all.push_back(static_cast<T>(i));
    return all;
}

// One user can't attack without the entitlement, as its clients have it.
std::vector<const Attack*> possibleAttacks() {
    std::vector<const Attack*> attacks;
    for (const Attack& attack : allAttacks()) {
        if (attack.entitled || geteuid() == 0) attacks.push_back(&attack);
    }
    return attacks;
}

}  // namespace

const char* nameOf(Disturbance disturbance) {
    static constexpr const char* kNames[] = {"faults of the reporting server",
                                             "refusals of the reporting server",
                                             "kills of a client",
                                             "full disks",
                                             "clock jumps",
                                             "bag replacements",
                                             "faults of the bag server",
                                             "SIGHUPs"};
    static_assert(std::size(kNames) == kDisturbances);
    return kNames[static_cast<size_t>(disturbance)];
}

const char* nameOf(Ending ending) {
    static constexpr const char* kNames[] = {"quiet", "under load", "by SIGKILL"};
    static_assert(std::size(kNames) == kEndings);
    return kNames[static_cast<size_t>(ending)];
}

Schedule::Schedule(uint64_t seed) : random_(seed), detail_(static_cast<uint32_t>(random_())) {}

// Deals a shuffled deck to its end before the next, so that short runs have everything.
template <typename T>
T Schedule::dealt(std::vector<T>& deck, std::vector<T> whole) {
    if (deck.empty()) {
        deck = std::move(whole);
        for (size_t i = deck.size(); i > 1; --i)
            std::swap(deck[i - 1], deck[below(static_cast<uint32_t>(i))]);
    }
    const T top = deck.back();
    deck.pop_back();
    return top;
}

Step Schedule::nextStep() {
    const Disturbance disturbance = dealt(disturbances_, allOf<Disturbance, kDisturbances>());
    const Attack* const attack = dealt(attacks_, possibleAttacks());
    const auto duration = kShortest + std::chrono::milliseconds(below(kMostMore));
    return {disturbance, duration, attack, detail_++};
}

Schedule::Life Schedule::nextLife() {
    const size_t steps = kFewestSteps + below(kMostMoreSteps);
    return {steps, dealt(endings_, allOf<Ending, kEndings>())};
}

}  // namespace telvora::bench
