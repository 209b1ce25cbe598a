// SPDX-License-Identifier: Apache-2.0
//
// The client's end of the methods of method.h: writes calls and reads answers.
#pragma once

#include <type_traits>

#include "bus/bus_connection.h"
#include "protocol/codec.h"
#include "protocol/method.h"

namespace telvora {

// The types of the method's arguments, one after another.
template <typename Handler>
const std::string& argumentSignature(const Method<Handler>&) {
    // Never destroyed: a client's thread may use it to the very end of its process.
    static const std::string& signature = *[]<typename... In>(std::type_identity<std::tuple<In...>>) {
        return new std::string((std::string() + ... + Codec<In>::type()));
    }(std::type_identity<typename Method<Handler>::Arguments>());
    return signature;
}

// What a call of the method is sent to.
template <typename Handler>
BusConnection::Destination destinationOf(const Method<Handler>& method) {
    using Interface = typename Method<Handler>::Interface;
    return {Interface::kWirePath, Interface::kWireName, method.name, argumentSignature(method)};
}

// Writes the arguments of a call. A pointer may stand for an optional argument. False if they can't be
// written.
template <typename Handler, typename... Given>
bool writeArguments(WireWriter& body, const Method<Handler>&, const Given&... values) {
    ArgumentWriter out(body);
    const auto write = [&]<typename... In>(std::type_identity<std::tuple<In...>>) {
        static_assert(sizeof...(In) == sizeof...(Given), "the method has another number of arguments");
        (Codec<In>::write(out, values), ...);
    };
    write(std::type_identity<typename Method<Handler>::Arguments>());
    return out.ok();
}

// The header of all calls of the method, for BusConnection::call().
template <const auto& kMethod>
const std::string& callHeader() {
    // Never destroyed, as argumentSignature().
    static const std::string& header = *[] {
        const auto to = destinationOf(kMethod);
        MessageView view;
        view.type = MessageType::methodCall;
        view.path = to.path;
        view.interface = to.interface;
        view.member = to.method;
        view.signature = to.signature;
        view.descriptors = []<typename... In>(std::type_identity<std::tuple<In...>>) {
            return static_cast<uint32_t>((size_t{0} + ... + size_t{std::is_same_v<In, UniqueFd>}));
        }(std::type_identity<typename std::decay_t<decltype(kMethod)>::Arguments>());
        auto* const text = new std::string;
        WireWriter(*text, view).finish(kMaxSentMessage);
        return text;
    }();
    return header;
}

// Writes the arguments of a call, for BusConnection::call(). Fails with kInvalid or kTooLarge.
template <typename Handler, typename... Given>
tl::expected<std::string, BusSendFailure> writeBody(const Method<Handler>& method, const Given&... values) {
    std::string body;
    body.reserve((size_t{0} + ... + wireSize(values)));
    {
        WireWriter writer(body);
        if (!writeArguments(writer, method, values...)) return tl::unexpected(BusSendFailure::kInvalid);
        if (!writer.finish(kMaxSentMessage)) return tl::unexpected(BusSendFailure::kTooLarge);
    }
    return body;
}

// Takes the descriptors among the arguments of a call, which are sent with it.
template <typename... Given>
std::vector<UniqueFd> takeDescriptors(Given&... values) {
    std::vector<UniqueFd> descriptors;
    [[maybe_unused]] const auto take = [&descriptors]<typename T>(T& value) {
        if constexpr (std::is_same_v<T, UniqueFd>) descriptors.push_back(std::move(value));
    };
    (take(values), ...);
    return descriptors;
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
