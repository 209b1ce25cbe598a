// SPDX-License-Identifier: Apache-2.0
//
// The function that libFuzzer calls, and the bound of the time.
#include <ctime>

#include "fuzz/target.h"

namespace telvora::fuzz {
namespace {

constexpr double kSecondsPerByte = 50e-6;

double processorSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

}  // namespace
}  // namespace telvora::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace telvora::fuzz;
    // Objects that the first call makes do not count.
    static const bool prepared = (tryInput({}), true);
    static_cast<void>(prepared);
    const double start = processorSeconds();
    tryInput({reinterpret_cast<const char*>(data), size});
    require(processorSeconds() - start < kMostSeconds + kSecondsPerByte * static_cast<double>(size),
            "an input takes too long");
    return 0;
}
