// SPDX-License-Identifier: Apache-2.0
//
// A library for LD_PRELOAD: the time of day is shifted by the seconds in the file TELVORA_BENCH_CLOCK, which
// another process changes. It is mapped before the program confines itself.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace {

decltype(&clock_gettime) theirClock = nullptr;
const std::atomic<int64_t>* shift = nullptr;

__attribute__((constructor)) void mapShift() {
    theirClock = reinterpret_cast<decltype(theirClock)>(dlsym(RTLD_NEXT, "clock_gettime"));
    const char* const path = getenv("TELVORA_BENCH_CLOCK");
    const int file = path != nullptr ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (file < 0) return;
    void* const mapped = mmap(nullptr, sizeof *shift, PROT_READ, MAP_SHARED, file, 0);
    close(file);
    if (mapped != MAP_FAILED) shift = static_cast<const std::atomic<int64_t>*>(mapped);
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (theirClock == nullptr) mapShift();  // a library's constructor runs before this one's
    const int result = theirClock(clock, now);
    if (clock == CLOCK_REALTIME && shift != nullptr) now->tv_sec += shift->load(std::memory_order_relaxed);
    return result;
}

extern "C" int gettimeofday(timeval* now, void*) noexcept {
    timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    *now = {precise.tv_sec, precise.tv_nsec / 1000};
    return 0;
}
