// SPDX-License-Identifier: Apache-2.0
//
// Blocking calls of the client library.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "client/client_session.h"
#include "tests/support/child_process.h"

namespace telvora::test {

// Starts a call with its completion. The returned function waits for the answer. It throws std::runtime_error
// if the call fails or gets no answer within kPatience.
template <typename T, typename Start>
std::function<T()> begin(Start start) {
    auto promise = std::make_shared<std::promise<tl::expected<T, CallFailure>>>();
    start([promise](const tl::expected<T, CallFailure>& answer) { promise->set_value(answer); });
    return [answered = promise->get_future().share()] {
        if (answered.wait_for(kPatience) != std::future_status::ready)
            throw std::runtime_error("no answer came");
        const tl::expected<T, CallFailure>& answer = answered.get();
        if (!answer) throw std::runtime_error(answer.error().message);
        if constexpr (!std::is_void_v<T>) return *answer;
    };
}

template <typename T, typename Start>
T await(Start start) {
    return begin<T>(start)();
}

}  // namespace telvora::test
