// SPDX-License-Identifier: Apache-2.0
//
// The thread that opens or closes the transaction only counts, and has the main run loop check the count. The
// loop acts on the count that it finds, so the order of the checks does not matter.
#include "daemon/keep_alive_transaction.h"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <utility>

#include "util/attempt.h"
#include "util/mutex.h"

namespace telvora {

namespace {

class SteadyIdleTimer : public IdleTimer {
  public:
    explicit SteadyIdleTimer(asio::io_context& runLoop) : timer_(runLoop) {}

    void start(std::chrono::milliseconds delay, std::function<void()> handler) override {
        timer_.expires_after(delay);
        timer_.async_wait([handler = std::move(handler)](asio::error_code cancelled) {
            if (!cancelled) handler();
        });
    }
    void cancel() override { timer_.cancel(); }

  private:
    asio::steady_timer timer_;
};

}  // namespace

struct KeepAliveTransaction::State : std::enable_shared_from_this<KeepAliveTransaction::State> {
    State(asio::io_context& mainRunLoop, KeepAliveOptions given)
        : runLoop(mainRunLoop), options(std::move(given)) {
        if (!options.timer) options.timer = std::make_unique<SteadyIdleTimer>(runLoop);
    }

    void change(int by) {
        {
            MutexLock lock(mutex);
            count += by;
            if (count != (by > 0 ? 1 : 0)) return;  // neither the first nor the last
        }
        // Without it, the timer runs on or does not start. The next change checks again.
        attempt("KeepAliveTransaction", [this] { checkSoon(); });
    }

    void checkSoon() {
        if (!options.launchedOnDemand) return;
        asio::post(runLoop, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->check();
        });
    }

    void check() {
        if (isOpen()) return options.timer->cancel();
        options.timer->start(options.idleTime, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) self->idled();
        });
    }

    void idled() {
        if (isOpen()) return;  // opened just now; a check is posted
        if (options.inFlight()) return check();
        if (auto onIdle = std::exchange(options.onIdle, nullptr)) onIdle();
    }

    bool isOpen() {
        MutexLock lock(mutex);
        return count > 0;
    }

    asio::io_context& runLoop;
    KeepAliveOptions options;
    Mutex mutex;
    int count TELVORA_GUARDED_BY(mutex) = 0;
};

KeepAliveTransaction::KeepAliveTransaction(asio::io_context& mainRunLoop, KeepAliveOptions options)
    : state_(std::make_shared<State>(mainRunLoop, std::move(options))) {
    state_->checkSoon();
}

KeepAliveTransaction::~KeepAliveTransaction() = default;

void KeepAliveTransaction::begin() {
    state_->change(1);
}

void KeepAliveTransaction::end() {
    state_->change(-1);
}

}  // namespace telvora
