// SPDX-License-Identifier: Apache-2.0
#include "soak_machine.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <chrono>
#include <fstream>
#include <stdexcept>

#include "util/unique_fd.h"

namespace telvora::bench {
namespace {

constexpr char kFiller[] = "filler";

#ifdef TELVORA_SANITIZED
constexpr bool kPreloads = false;  // a sanitizer's library has to be the first
#else
constexpr bool kPreloads = true;
#endif

}  // namespace

SmallDisk::SmallDisk()
    : mountable_(unshare(CLONE_NEWNS) == 0 &&
                 mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {}

void SmallDisk::mountOn(std::vector<std::filesystem::path> directories) {
    directories_ = std::move(directories);
    for (const auto& directory : directories_) {
        std::filesystem::create_directories(directory);
        mountable_ = mountable_ && mount("none", directory.c_str(), "tmpfs", 0, "size=4m,mode=0755") == 0;
    }
}

void SmallDisk::change(pid_t daemon, bool full) const {
    if (!mountable_) {
        const rlimit limit{full ? 0 : RLIM_INFINITY, RLIM_INFINITY};
        prlimit(daemon, RLIMIT_FSIZE, &limit, nullptr);
        return;
    }
    for (const auto& directory : directories_) {
        if (full) {
            std::ofstream(directory / kFiller) << std::string(size_t{8} << 20, 'x');
        } else {
            std::filesystem::remove(directory / kFiller);
        }
    }
}

ShiftedClock::ShiftedClock(const std::filesystem::path& file) : file_(file) {
    const UniqueFd made(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    void* mapped = MAP_FAILED;
    if (ftruncate(made.get(), sizeof *shift_) == 0)
        mapped = mmap(nullptr, sizeof *shift_, PROT_READ | PROT_WRITE, MAP_SHARED, made.get(), 0);
    if (mapped == MAP_FAILED) throw std::runtime_error("can't map " + file.string());
    shift_ = static_cast<std::atomic<int64_t>*>(mapped);
}

ShiftedClock::~ShiftedClock() {
    munmap(shift_, sizeof *shift_);
}

bool ShiftedClock::isShifted() {
    return kPreloads;
}

std::vector<std::string> ShiftedClock::launcher() const {
    std::vector<std::string> command{"/usr/bin/env", "--ignore-signal=XFSZ"};
    if (kPreloads) {
        command.push_back(std::string("LD_PRELOAD=") + TELVORA_BENCH_SHIFTED_CLOCK);
        command.push_back("TELVORA_BENCH_CLOCK=" + file_.string());
    }
    return command;
}

}  // namespace telvora::bench
