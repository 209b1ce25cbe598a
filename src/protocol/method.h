// SPDX-License-Identifier: Apache-2.0
//
// The description of the operations of an interface. An interface is an abstract class: its member functions
// are the operations as C++ sees them. Two constants name it on the wire:
//
//     class Greeter {
//       public:
//         static constexpr char kWireName[] = "com.example.Greeter";
//         static constexpr char kWirePath[] = "/com/example";   // of the object that has the interface
//         virtual void greet(std::string name, std::function<void(std::string greeting)> reply) = 0;
//     };
//
// and one Method per operation adds the name of the operation and the names of its arguments:
//
//     inline constexpr auto kGreet = method("Greet", &Greeter::greet, {"name"}, {"greeting"});
//     inline constexpr std::tuple kGreeterMethods{kGreet};
//
// All else follows from these: the D-Bus signatures from the C++ types (codec.h), the introspection and the
// calls that the server reads (method_export.h), and the calls that the client writes (method_call.h). A new
// operation is a member function, its Method, and the Method's name in the table.
//
// The return type of the member function selects when the call is answered:
//
//     void f(In..., std::function<void(Out...)> reply)   when `reply` is called: once, from any thread
//     void f(In...)                                      at its return, without arguments
//     Out f(In...)                                       at its return
//     tl::expected<Out, BusError> f(In...)               at its return, or with an error
#pragma once

#include <array>
#include <functional>
#include <tl/expected.hpp>
#include <tuple>

#include "bus/bus_message.h"

namespace telvora {

// --- The parts of a member function's type ---

enum class AnswerTime { kLater, kAtReturn };

// Splits a parameter list into arguments and reply.
template <typename In, typename... Rest>
struct Parameters;

template <typename... In>
struct Parameters<std::tuple<In...>> {
    using Arguments = std::tuple<In...>;
    using Answer = std::tuple<>;
    static constexpr AnswerTime kAnswerTime = AnswerTime::kAtReturn;
};

template <typename... In, typename... Out>
struct Parameters<std::tuple<In...>, std::function<void(Out...)>> {
    using Arguments = std::tuple<In...>;
    using Answer = std::tuple<Out...>;
    static constexpr AnswerTime kAnswerTime = AnswerTime::kLater;
};

template <typename... In, typename Next, typename... Rest>
struct Parameters<std::tuple<In...>, Next, Rest...> : Parameters<std::tuple<In..., Next>, Rest...> {};

template <typename Handler>
struct HandlerTraits;

template <typename Interface_, typename... P>
struct HandlerTraits<void (Interface_::*)(P...)> : Parameters<std::tuple<>, P...> {
    using Interface = Interface_;
};

template <typename Interface_, typename Out, typename... In>
struct HandlerTraits<Out (Interface_::*)(In...)> {
    using Interface = Interface_;
    using Arguments = std::tuple<In...>;
    using Answer = std::tuple<Out>;
    static constexpr AnswerTime kAnswerTime = AnswerTime::kAtReturn;
};

template <typename Interface_, typename Out, typename... In>
struct HandlerTraits<tl::expected<Out, BusError> (Interface_::*)(In...)>
    : HandlerTraits<Out (Interface_::*)(In...)> {};

// --- The description ---

template <typename Handler_>
struct Method {
    using Handler = Handler_;
    using Interface = typename HandlerTraits<Handler>::Interface;
    using Arguments = typename HandlerTraits<Handler>::Arguments;
    using Answer = typename HandlerTraits<Handler>::Answer;

    const char* name;
    Handler handler;
    std::array<const char*, std::tuple_size_v<Arguments>> argumentNames;
    std::array<const char*, std::tuple_size_v<Answer>> answerNames;
    BusCallOrder order = BusCallOrder::kConcurrent;
};

// Does not compile if a name is missing.
template <typename Handler>
consteval Method<Handler> method(const char* name, Handler handler,
                                 decltype(Method<Handler>::argumentNames) argumentNames,
                                 decltype(Method<Handler>::answerNames) answerNames) {
    for (const char* argument : argumentNames)
        if (argument == nullptr) throw "an argument has no name";
    for (const char* answer : answerNames)
        if (answer == nullptr) throw "an argument of the answer has no name";
    return {name, handler, argumentNames, answerNames};
}

// The same method, whose calls postpone the calls that follow until they are answered.
template <typename Handler>
consteval Method<Handler> exclusive(Method<Handler> method) {
    method.order = BusCallOrder::kExclusive;
    return method;
}

}  // namespace telvora
