// SPDX-License-Identifier: Apache-2.0
#include "daemon/shutdown.h"

#include <csignal>

#include "util/log.h"

namespace telvora {

namespace {

constexpr std::chrono::seconds kTimeAfterDeadline{1};

}  // namespace

Shutdown::Shutdown(asio::io_context& runLoop, Steps steps, std::chrono::milliseconds deadline)
    : runLoop_(runLoop),
      steps_(std::move(steps)),
      deadline_(deadline),
      check_(runLoop,
             [this] {
                 if (begun_ && steps_.isIdle()) runLoop_.stop();
             }),
      signals_(runLoop, SIGTERM, SIGINT),
      timer_(runLoop) {}

void Shutdown::onSignals() {
    awaitSignal();
}

void Shutdown::awaitSignal() {
    signals_.async_wait([this](asio::error_code error, int) {
        if (error) return;
        if (begun_) return runLoop_.stop();
        begin();
        awaitSignal();
    });
}

void Shutdown::begin() {
    if (begun_) return;
    begun_ = true;
    steps_.stopAccepting();
    steps_.endSessions();
    timer_.expires_after(deadline_);
    timer_.async_wait([this](asio::error_code cancelled) {
        if (cancelled) return;
        TELVORA_LOG(kLogWarning, "main: Stopping with reports still on their way after %lld ms",
                    static_cast<long long>(deadline_.count()));
        if (!steps_.giveUp()) return runLoop_.stop();
        timer_.expires_after(kTimeAfterDeadline);
        timer_.async_wait([this](asio::error_code) { runLoop_.stop(); });
    });
    check();
}

}  // namespace telvora
