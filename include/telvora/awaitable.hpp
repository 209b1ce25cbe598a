// SPDX-License-Identifier: Apache-2.0
//
// Operations of a session in coroutines.
#pragma once

#include <coroutine>
#include <utility>

#include "telvora/answer.hpp"

namespace telvora {
inline namespace v1 {

// Makes an operation awaitable. The coroutine resumes on the library's thread with the Answer, or at once if
// the operation fails:
//
//     const telvora::Answer answer = co_await telvora::Awaitable(
//         [&](telvora::Completion done) { return session.flush(std::move(done)); });
template <typename Operation>
class Awaitable {
  public:
    explicit Awaitable(Operation operation) : operation_(std::move(operation)) {}

    bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> waiting) {
        // The coroutine may resume, and destroy this object, before the operation returns.
        Operation operation = std::move(operation_);
        const Status status = operation([this, waiting](const Answer& answer) {
            answer_ = answer;
            waiting.resume();
        });
        if (status == TELVORA_OK) return true;
        answer_.status = status;
        return false;
    }
    Answer await_resume() { return std::move(answer_); }

  private:
    Operation operation_;
    Answer answer_;
};

}  // namespace v1
}  // namespace telvora
