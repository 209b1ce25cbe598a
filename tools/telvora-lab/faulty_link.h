// SPDX-License-Identifier: Apache-2.0
//
// FaultyLink: the faults of a network for datagrams in one direction. The seed determines the random
// sequence.
#pragma once

#include <chrono>
#include <cstdint>
#include <random>
#include <vector>

namespace telvora::lab {

struct LinkFaults {
    // Probabilities, 0 to 1.
    double loss = 0;
    double duplicate = 0;  // of a datagram that is not lost
    double reorder = 0;    // of each copy: it is delayed, so that later ones overtake it
    // The delay of each copy, uniformly distributed.
    std::chrono::milliseconds minDelay{0};
    std::chrono::milliseconds maxDelay{0};
};

class FaultyLink {
  public:
    // The additional delay of a reordered datagram.
    static constexpr std::chrono::milliseconds kHeldBack{50};

    FaultyLink(LinkFaults faults, uint64_t seed) : faults_(faults), random_(seed) {}

    // The delays of the next datagram's copies. Empty if the datagram is lost.
    std::vector<std::chrono::milliseconds> transit();

  private:
    double uniform();  // in [0, 1)

    const LinkFaults faults_;
    std::mt19937_64 random_;
};

}  // namespace telvora::lab
