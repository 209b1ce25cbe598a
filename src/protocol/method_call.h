// SPDX-License-Identifier: Apache-2.0
//
// The client's end of the methods of method.h: writes calls and reads answers.
#pragma once

#include <type_traits>

#include "bus/bus_connection.h"
#include "protocol/codec.h"
#include "protocol/method.h"

namespace telvora {

// A new call of the method; see BusConnection::newCall().
template <typename Handler>
BusMessage newCall(BusConnection& bus, const Method<Handler>& method) {
    using Interface = typename Method<Handler>::Interface;
    return bus.newCall(Interface::kWirePath, Interface::kWireName, method.name);
}

// Appends the arguments to a call. A pointer may stand for an optional argument. 0, or a negative errno.
template <typename Handler, typename... Given>
int writeArguments(BusMessage& call, const Method<Handler>&, const Given&... values) {
    ArgumentWriter out(call);
    const auto write = [&]<typename... In>(std::type_identity<std::tuple<In...>>) {
        static_assert(sizeof...(In) == sizeof...(Given), "the method has another number of arguments");
        (Codec<In>::write(out, values), ...);
    };
    write(std::type_identity<typename Method<Handler>::Arguments>());
    return out.result();
}

// The answer, of type T: void, the type of the only argument, or a structure of the arguments in their order.
// Fails with the reader's text.
template <typename T, typename Handler>
tl::expected<T, std::string> readAnswer(BusMessage& reply, const Method<Handler>&) {
    if constexpr (std::is_void_v<T>) {
        return {};
    } else {
        ArgumentReader in(reply);
        const auto read = [&]<typename... Out>(std::type_identity<std::tuple<Out...>>) {
            return T{Codec<Out>::read(in)...};  // braces: in this order
        };
        T answer = read(std::type_identity<typename Method<Handler>::Answer>());
        if (!in.ok()) return tl::unexpected(in.failure());
        return answer;
    }
}

}  // namespace telvora
