// SPDX-License-Identifier: Apache-2.0
//
// UserTurns: lets the users whose connections keep an event loop busy take turns. Connections of a user that
// is not busy run as their input comes. A busy user's connections queue their turns, and each loop runs one
// turn of one busy user after the other, behind the input of all others. So the number of a user's
// connections gains that user no time.
//
// All operations are callable from any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "async/work_pool.h"

namespace telvora {

class UserTurns {
  public:
    // A user is busy after this number of bytes of input within kWindowMilliseconds. The time of turns
    // counts, too: a small call can cost much.
    static constexpr uint64_t kBusyBytes = uint64_t{256} << 10;
    static constexpr uint64_t kBusyMilliseconds = 20;
    static constexpr uint64_t kWindowMilliseconds = 100;

    // Counts input of the user.
    void add(size_t bytes);
    // Counts the length of a turn.
    void addTime(uint64_t milliseconds) {
        if (milliseconds > 0) add(milliseconds * (kBusyBytes / kBusyMilliseconds));
    }
    bool isBusy() const;
    // The coarse monotonic clock, which costs a few nanoseconds. It ticks every few milliseconds: a turn's
    // share of the ticks is its share of the time.
    static uint64_t milliseconds();

    // Runs `turn` on the strand, when it is the turn of `user` on the strand's loop. Dropped if the loop
    // ends.
    static void queue(const std::shared_ptr<UserTurns>& user, const Strand& strand,
                      std::function<void()> turn);

  private:
    std::atomic<uint64_t> windowStart_{0};  // milliseconds of the coarse monotonic clock
    std::atomic<uint64_t> bytes_{0};        // since then
};

}  // namespace telvora
