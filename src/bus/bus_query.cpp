// SPDX-License-Identifier: Apache-2.0
#include "bus/bus_query.h"

#include <memory>

#include "util/error_text.h"
#include "util/percent_encoding.h"

namespace telvora {

namespace {

using Kind = BusQueryFailure::Kind;

// A D-Bus address: all but a few characters are escaped (D-Bus Specification, "Server Addresses").
std::string addressOf(const std::string& socketPath) {
    constexpr auto isPlain = [](char c) {
        return (c != '~' && kUnreservedCharacters.find(c) != std::string_view::npos) || c == '/';
    };
    return "unix:path=" + percentEncoded(socketPath, isPlain);
}

tl::unexpected<BusQueryFailure> failure(Kind kind, std::string message) {
    return tl::unexpected(BusQueryFailure{kind, std::move(message)});
}

struct CloseBus {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};

}  // namespace

tl::expected<BusMessage, BusQueryFailure> callAndWait(const BusQuery& query) {
    sd_bus* made = nullptr;
    int result = sd_bus_new(&made);
    const std::unique_ptr<sd_bus, CloseBus> bus(made);
    const auto timeout = static_cast<uint64_t>(std::chrono::microseconds(query.timeout).count());
    if (result >= 0) result = sd_bus_set_address(bus.get(), addressOf(query.socketPath).c_str());
    if (result >= 0) result = sd_bus_set_method_call_timeout(bus.get(), timeout);
    if (result >= 0) result = sd_bus_start(bus.get());
    sd_bus_message* written = nullptr;
    if (result >= 0) {
        result = sd_bus_message_new_method_call(bus.get(), &written, nullptr, query.path, query.interface,
                                                query.method);
    }
    const BusMessage call = BusMessage::adopt(written);
    if (result < 0) {
        return failure(Kind::kUnreachable, errorText("can't connect to " + query.socketPath, -result));
    }
    sd_bus_message* received = nullptr;
    sd_bus_error error{};
    result = sd_bus_call(bus.get(), call.get(), timeout, &error, &received);
    BusMessage reply = BusMessage::adopt(received);
    const std::string message = error.message != nullptr ? error.message : errorText(-result);
    const bool answered = sd_bus_error_is_set(&error) > 0 && sd_bus_is_open(bus.get()) > 0;
    sd_bus_error_free(&error);
    if (result >= 0) return reply;
    if (result == -ETIMEDOUT) return failure(Kind::kNoAnswer, "no answer in time");
    return failure(answered ? Kind::kRefused : Kind::kUnreachable, message);
}

}  // namespace telvora
