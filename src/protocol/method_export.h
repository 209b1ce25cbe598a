// SPDX-License-Identifier: Apache-2.0
//
// The server's end of the methods of method.h: exports a table of them on a connection.
#pragma once

#include <utility>

#include "bus/bus_connection.h"
#include "protocol/codec.h"
#include "protocol/method.h"

namespace telvora {

// The interface of a table of methods; see method.h.
template <const auto& kMethods>
using InterfaceOf = typename std::tuple_element_t<0, std::remove_cvref_t<decltype(kMethods)>>::Interface;

// --- Introspection ---

template <typename... T>
std::vector<BusArgument> describeArguments(const std::array<const char*, sizeof...(T)>& names,
                                           std::type_identity<std::tuple<T...>>) {
    std::vector<BusArgument> arguments;
    const std::array<std::string, sizeof...(T)> types{Codec<T>::type()...};
    for (size_t i = 0; i < types.size(); ++i)
        arguments.push_back({names[i], types[i]});
    return arguments;
}

// The table as the bus reads it. It is never destroyed: a client's thread may use it to the very end of its
// process.
template <const auto& kMethods>
const BusInterface& busInterface() {
    static const BusInterface& interface = *std::apply(
        [](const auto&... method) {
            return new BusInterface(
                InterfaceOf<kMethods>::kWireName,
                {BusMethod{
                    method.name,
                    describeArguments(
                        method.argumentNames,
                        std::type_identity<typename std::remove_cvref_t<decltype(method)>::Arguments>()),
                    describeArguments(
                        method.answerNames,
                        std::type_identity<typename std::remove_cvref_t<decltype(method)>::Answer>())}...});
        },
        kMethods);
    return interface;
}

// --- Calls ---

template <typename... T>
std::tuple<T...> readArguments(ArgumentReader& in, std::type_identity<std::tuple<T...>>) {
    return std::tuple<T...>{Codec<T>::read(in)...};  // braces: in this order
}

template <typename... T>
bool writeAnswer(WireWriter& body, const std::tuple<T...>& answer) {
    ArgumentWriter out(body);
    std::apply([&out](const T&... value) { (Codec<T>::write(out, value), ...); }, answer);
    return out.ok();
}

// Holds the call until it is run or destroyed, on any thread.
template <typename... Out>
std::function<void(Out...)> replyTo(std::shared_ptr<PendingCall> call,
                                    std::type_identity<std::tuple<Out...>>) {
    return [call = std::move(call)](Out... values) {
        call->reply([answer = std::tuple<Out...>(std::move(values)...)](WireWriter& body) {
            return writeAnswer(body, answer);
        });
    };
}

// Reads the arguments of one call, runs the method on `target` and sends the answer.
template <typename Handler>
std::optional<BusError> carryOut(const Method<Handler>& method, typename Method<Handler>::Interface& target,
                                 BusConnection& bus, BusMessage& call) {
    using Traits = HandlerTraits<Handler>;
    using AnswerTypes = std::type_identity<typename Traits::Answer>;
    ArgumentReader in(call);
    auto arguments = readArguments(in, std::type_identity<typename Traits::Arguments>());
    if (!in.ok()) return BusError{kBusErrorInvalidArgs, in.failure()};
    const auto run = [&](auto&&... reply) {
        return std::apply(
            [&](auto&... argument) {
                return (target.*method.handler)(std::move(argument)...,
                                                std::forward<decltype(reply)>(reply)...);
            },
            arguments);
    };
    if constexpr (Traits::kAnswerTime == AnswerTime::kLater) {
        run(replyTo(bus.defer(call, method.order), AnswerTypes()));
    } else if constexpr (std::tuple_size_v<typename Traits::Answer> == 0) {
        run();
        bus.replyNow(call, [](WireWriter&) { return true; });
    } else {
        using Out = std::tuple_element_t<0, typename Traits::Answer>;
        tl::expected<Out, BusError> answer = run();
        if (!answer) return answer.error();
        bus.replyNow(
            call, [&](WireWriter& body) { return writeAnswer(body, std::tuple<Out>(std::move(*answer))); });
    }
    return std::nullopt;
}

template <typename Interface>
using CarryOut = std::optional<BusError> (*)(Interface& target, BusConnection& bus, BusMessage& call);

// carryOut() for each method of a table.
template <const auto& kMethods, size_t... index>
constexpr auto callsOf(std::index_sequence<index...>) {
    using Target = InterfaceOf<kMethods>;
    return std::array<CarryOut<Target>, sizeof...(index)>{
        [](Target& target, BusConnection& bus, BusMessage& call) {
            return carryOut(std::get<index>(kMethods), target, bus, call);
        }...};
}

// Exports the methods on `bus`. For each call, `around` is called with a function `run`: it returns
// `run(target)`, with the object that answers the call, or an error.
template <const auto& kMethods, typename Around>
void exportMethods(BusConnection& bus, Around around) {
    using Target = InterfaceOf<kMethods>;
    constexpr size_t kCount = std::tuple_size_v<std::remove_cvref_t<decltype(kMethods)>>;
    static constexpr auto kCalls = callsOf<kMethods>(std::make_index_sequence<kCount>());
    bus.exportInterface(
        Target::kWirePath, busInterface<kMethods>(),
        [&bus, around = std::move(around)](size_t method, BusMessage& call) -> std::optional<BusError> {
            return around([&](Target& target) { return kCalls[method](target, bus, call); });
        });
}

}  // namespace telvora
