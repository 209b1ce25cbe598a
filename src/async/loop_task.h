// SPDX-License-Identifier: Apache-2.0
//
// LoopTask: runs a function on a loop, once for all calls of post() before it begins.
#pragma once

#include <asio/bind_allocator.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <functional>
#include <memory>
#include <utility>

#include "async/handler_memory.h"

namespace telvora {

// Outlives the run of the loop.
class LoopTask {
  public:
    LoopTask(asio::io_context& loop, std::function<void()> run) : loop_(loop), run_(std::move(run)) {}

    // Callable from any thread. Needs no memory.
    void post() noexcept {
        if (posted_.exchange(true)) return;
        asio::post(loop_, asio::bind_allocator(HandlerAllocator(memory_), [this] {
                       posted_ = false;
                       run_();
                   }));
    }

  private:
    asio::io_context& loop_;
    const std::function<void()> run_;
    const std::shared_ptr<HandlerMemory<1>> memory_ = std::make_shared<HandlerMemory<1>>();
    std::atomic<bool> posted_{false};
};

}  // namespace telvora
