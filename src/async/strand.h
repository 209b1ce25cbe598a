// SPDX-License-Identifier: Apache-2.0
//
// Strand: runs work items one after another on an event loop. It is an executor of asio: asio::post(),
// asio::dispatch() and asio's timers and descriptors take it.
//
// asio::strand stays locked, or ends the process, where there is no memory for one of its own steps. This one
// has the memory for its steps from the start, and for a few items: an event that has arrived is not lost.
//
// All operations are callable from any thread. A copy refers to the same strand.
#pragma once

#include <asio/execution/blocking.hpp>
#include <asio/execution/context.hpp>
#include <asio/execution/executor.hpp>
#include <asio/io_context.hpp>
#include <memory>
#include <type_traits>
#include <utility>

#include "util/unique_function.h"

namespace telvora {

class Strand {
  public:
    // `loop` outlives the strand.
    explicit Strand(asio::io_context& loop);

    asio::io_context& context() const noexcept;
    // Whether the calling thread runs an item of the strand.
    bool running_in_this_thread() const noexcept;

    // --- An executor of asio ---

    // Runs the function at once if the calling thread runs the strand, or if it runs the loop and the strand
    // is idle; otherwise later. After require(blocking.never), always later. An item that has not begun when
    // the loop is destroyed is destroyed with it. Throws std::bad_alloc, without effect, if there is no
    // memory for another item.
    template <typename Function>
    void execute(Function&& function) const {
        if (mayRunNow_) {
            if (const Turn turn(*state_); turn.isHeld()) {
                std::decay_t<Function> now(std::forward<Function>(function));
                return now();
            }
        }
        add(Item(Movable<std::decay_t<Function>>(std::in_place, std::forward<Function>(function))));
    }
    asio::execution_context& query(asio::execution::context_t) const noexcept { return context(); }
    Strand require(asio::execution::blocking_t::never_t) const noexcept { return Strand(state_, false); }
    Strand require(asio::execution::blocking_t::possibly_t) const noexcept { return Strand(state_, true); }
    friend bool operator==(const Strand& a, const Strand& b) noexcept { return a.state_ == b.state_; }
    friend bool operator!=(const Strand& a, const Strand& b) noexcept { return a.state_ != b.state_; }

  private:
    using Item = UniqueFunction<void(), 96>;
    struct State;
    struct Runner;

    // A function whose moves do not throw, though the wrappers of asio do not declare it: an Item holds it
    // without memory.
    template <typename Function>
    struct Movable {
        template <typename Given>
        Movable(std::in_place_t, Given&& given) : function(std::forward<Given>(given)) {}
        Movable(Movable&& other) noexcept : function(std::move(other.function)) {}
        void operator()() { function(); }

        Function function;
    };

    // The right to run items, if the calling thread has it or could take it.
    class Turn {
      public:
        explicit Turn(State& state) noexcept;
        ~Turn();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

        bool isHeld() const { return held_; }

      private:
        friend struct Runner;
        friend class Strand;
        // Takes over the right from the runner.
        Turn(State& state, std::nullptr_t) noexcept;
        void enter() noexcept;

        State& state_;
        bool held_ = true;
        bool taken_ = false;     // to be returned
        Turn* outer_ = nullptr;  // of this thread
    };

    Strand(std::shared_ptr<State> state, bool mayRunNow) noexcept
        : state_(std::move(state)), mayRunNow_(mayRunNow) {}
    void add(Item item) const;

    static thread_local Turn* current_;
    std::shared_ptr<State> state_;
    bool mayRunNow_ = true;
};

}  // namespace telvora
