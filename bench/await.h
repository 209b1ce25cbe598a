// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <future>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "client/client_session.h"

namespace telvora::bench {

// Starts a call with a completion and waits for its answer. Throws std::runtime_error when there is none.
template <typename T, typename Start>
T await(Start start) {
    std::promise<tl::expected<T, CallFailure>> promise;
    auto answered = promise.get_future();
    start([&promise](tl::expected<T, CallFailure> answer) { promise.set_value(std::move(answer)); });
    tl::expected<T, CallFailure> answer = answered.get();
    if (!answer) throw std::runtime_error(answer.error().message);
    if constexpr (!std::is_void_v<T>) return std::move(*answer);
}

}  // namespace telvora::bench
