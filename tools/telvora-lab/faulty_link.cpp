// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/faulty_link.h"

namespace telvora::lab {

std::vector<std::chrono::milliseconds> FaultyLink::transit() {
    std::vector<std::chrono::milliseconds> copies;
    if (uniform() < faults_.loss) return copies;
    const int count = uniform() < faults_.duplicate ? 2 : 1;
    const auto spread = static_cast<double>((faults_.maxDelay - faults_.minDelay).count() + 1);
    for (int i = 0; i < count; ++i) {
        auto delay = faults_.minDelay + std::chrono::milliseconds(static_cast<int64_t>(uniform() * spread));
        if (uniform() < faults_.reorder) delay += kHeldBack;
        copies.push_back(delay);
    }
    return copies;
}

double FaultyLink::uniform() {
    return static_cast<double>(random_() >> 11) * 0x1p-53;
}

}  // namespace telvora::lab
