// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <csignal>
#include <functional>
#include <utility>

namespace telvora {

// Calls a handler on the run loop at every SIGHUP, for as long as it lives.
class Reload {
  public:
    Reload(asio::io_context& runLoop, std::function<void()> handler)
        : signals_(runLoop, SIGHUP), handler_(std::move(handler)) {
        await();
    }

  private:
    void await() {
        signals_.async_wait([this](asio::error_code error, int) {
            if (error) return;
            handler_();
            await();
        });
    }

    asio::signal_set signals_;
    const std::function<void()> handler_;
};

}  // namespace telvora
