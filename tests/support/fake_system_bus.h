// SPDX-License-Identifier: Apache-2.0
//
// FakeSystemBus: a system bus with NetworkManager and UPower, for one connection at a time. It answers and
// signals on the test's own thread, and only when the test asks it to.
#pragma once

#include <optional>

#include "tests/support/bus_peer.h"
#include "tests/support/unix_socket.h"

namespace telvora::test {

class FakeSystemBus {
  public:
    // The D-Bus type of a property, and its value. Without a type, the service is not there.
    struct Property {
        const char* type = nullptr;
        uint32_t value = 0;
    };

    explicit FakeSystemBus(const std::string& path) : listener_(boundSocket(path, SOCK_STREAM)) {}

    // Accepts a connection in place of an earlier one, and answers its first questions.
    void serve(int questions) {
        peer_.emplace(UniqueFd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)), true);
        answer(questions);
    }
    // Answers calls until it has answered so many questions for a property.
    void answer(int questions) {
        while (questions > 0) {
            const SdBusMessage call = peer_->receive();
            if (!call) throw std::runtime_error("the connection has ended");
            const std::string_view method = sd_bus_message_get_member(call.get());
            if (method == "AddMatch") ++rules;
            if (method != "Get") {
                sd_bus_reply_method_return(call.get(), "");
                continue;
            }
            --questions;
            const std::string_view service = sd_bus_message_get_destination(call.get());
            const Property& property = service == "org.freedesktop.UPower" ? battery : metered;
            property.type != nullptr
                ? sd_bus_reply_method_return(call.get(), "v", property.type, property.value)
                : sd_bus_reply_method_errorf(call.get(), SD_BUS_ERROR_SERVICE_UNKNOWN, "absent");
        }
        peer_->flush();
    }
    // Signals a change of the service.
    void signal(const char* service) {
        sd_bus_message* message = nullptr;
        sd_bus_message_new_signal(peer_->bus(), &message, "/", "org.freedesktop.DBus", "NameOwnerChanged");
        const SdBusMessage owned(message);
        sd_bus_message_append(message, "sss", service, "", ":1.7");
        peer_->send(owned);
        peer_->flush();
    }
    void hangUp() { peer_.reset(); }

    Property metered{"u", 0}, battery{"b", 0};
    int rules = 0;  // for signals, that were added

  private:
    const UniqueFd listener_;
    std::optional<BusPeer> peer_;
};

}  // namespace telvora::test
