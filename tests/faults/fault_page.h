// SPDX-License-Identifier: Apache-2.0
//
// The memory that a test shares with a daemon under fault_injector.cpp: the next calls of the daemon that
// fail.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace telvora::test {

// `allocation`: also of libraries.
enum class FaultyCall : uint32_t {
    none,
    allocation,
    accept,
    recvmsg,
    sendmsg,
    recv,
    send,
    read,
    write,
    open,
    status,
    socket,
    connect,
    epollAdd,
    epollWait,
    poll,
    socketOption,
    socketName,
    threadStart
};

inline constexpr char kFaultPageVariable[] = "TELVORA_FAULT_PAGE";

struct FaultPage {
    static constexpr size_t kFrames = 24;
    // A place of a program or library, as addr2line(1) takes it.
    struct Frame {
        char file[64];
        uint64_t offset;
    };

    std::atomic<FaultyCall> call{FaultyCall::none};
    std::atomic<int> error{0};
    std::atomic<int64_t> before{0};  // the number of such calls that still succeed
    std::atomic<int64_t> fail{0};    // the number of those that fail then
    std::atomic<int64_t> failed{0};
    std::array<Frame, kFrames> frames{};  // of the last call that failed

    // The `first` of these calls and those behind it, `count` in all, fail with this errno.
    void arm(FaultyCall which, int errorNumber, int64_t first, int64_t count) {
        error = errorNumber;
        before = first - 1;
        fail = count;
        failed = 0;
        frames = {};
        call = which;
    }
    // Returns the number of calls that failed.
    int64_t disarm() {
        call = FaultyCall::none;
        fail = 0;  // also of a call that has seen the kind
        return failed;
    }
};

}  // namespace telvora::test
