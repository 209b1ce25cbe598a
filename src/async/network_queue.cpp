// SPDX-License-Identifier: Apache-2.0
#include "async/network_queue.h"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <cstdint>
#include <utility>

namespace telvora {

namespace {

class AsioQueueTimer final : public QueueTimer {
  public:
    explicit AsioQueueTimer(Strand strand) : timer_(std::move(strand)) {}
    ~AsioQueueTimer() override { ++*generation_; }

    void arm(SteadyTime due, std::chrono::nanoseconds leeway, std::function<void()> handler) override {
        const uint64_t armed = ++*generation_;
        timer_.expires_at(sharedWakeup(due, leeway));
        timer_.async_wait([generation = generation_, armed, handler = std::move(handler)](asio::error_code) {
            if (*generation == armed) handler();
        });
    }

    void cancel() override {
        ++*generation_;
        timer_.cancel();
    }

  private:
    asio::steady_timer timer_;
    // Changes with each arm() and cancel(), because asio can't recall a handler that is already posted to the
    // strand. Outlives the timer for such a handler.
    const std::shared_ptr<std::atomic<uint64_t>> generation_ = std::make_shared<std::atomic<uint64_t>>(0);
};

class StrandNetworkQueue final : public NetworkQueue {
  public:
    explicit StrandNetworkQueue(Strand strand) : strand_(std::move(strand)) {}

    void post(std::function<void()> item) override { asio::post(strand_, std::move(item)); }
    SteadyTime now() const override { return std::chrono::steady_clock::now(); }
    std::unique_ptr<QueueTimer> makeTimer() override { return std::make_unique<AsioQueueTimer>(strand_); }
    tl::expected<std::unique_ptr<UdpSocket>, int> makeUdpSocket() override {
        return telvora::makeUdpSocket(strand_);
    }

  private:
    Strand strand_;
};

}  // namespace

SteadyTime sharedWakeup(SteadyTime due, std::chrono::nanoseconds leeway) {
    const auto past = due.time_since_epoch() % leeway;
    return past.count() == 0 ? due : due + (leeway - past);
}

std::unique_ptr<NetworkQueue> makeNetworkQueue(WorkPool& pool) {
    return std::make_unique<StrandNetworkQueue>(pool.makeStrand());
}

}  // namespace telvora
