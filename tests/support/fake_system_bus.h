// SPDX-License-Identifier: Apache-2.0
//
// FakeSystemBus: a system bus with NetworkManager and UPower, for one connection at a time. It answers and
// signals on the test's own thread, and only when the test asks it to.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tests/support/bus_peer.h"
#include "tests/support/unix_socket.h"

namespace telvora::test {

class FakeSystemBus {
  public:
    // A property: the type of its value and the value. Without a type, the service is not there.
    struct Property {
        char type = 0;
        uint32_t number = 0;
        const char* text = "";
    };

    explicit FakeSystemBus(const std::string& path) : listener_(boundSocket(path, SOCK_STREAM)) {}

    void accept() { peer_.emplace(UniqueFd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)), true); }
    void hangUp() { peer_.reset(); }
    // Answers calls until it has answered so many questions for a property.
    void answer(int questions) {
        while (questions > 0) {
            const SdBusMessage call = peer_->receive();
            if (!call) throw std::runtime_error("the connection has ended");
            const std::string_view method = sd_bus_message_get_member(call.get());
            rules += method == "AddMatch" ? 1 : 0;
            if (method == "Get") {
                --questions;
                answerQuestion(call);
            } else {
                check(sd_bus_reply_method_return(call.get(), method == "Hello" ? "s" : "", ":1.1"));
            }
        }
        peer_->flush();
    }
    // Accepts a connection and answers its first questions, one for each watched property.
    void serve(int questions) {
        accept();
        answer(questions);
    }
    // Sends a signal: PropertiesChanged or NameOwnerChanged.
    void signal(const char* service, const char* member) {
        const bool isOwner = std::string_view(member) == "NameOwnerChanged";
        sd_bus_message* message = nullptr;
        check(sd_bus_message_new_signal(peer_->bus(), &message, "/org/freedesktop", "org.freedesktop.DBus",
                                        member));
        const SdBusMessage owned(message);
        check(isOwner ? sd_bus_message_append(message, "sss", service, "", ":1.7")
                      : sd_bus_message_append(message, "sa{sv}as", service, 0, 0));
        peer_->send(owned);
        peer_->flush();
    }

    Property metered{'u', 0};
    Property battery{'b', 0};
    int rules = 0;  // that were added

  private:
    static void check(int result) {
        if (result < 0) throw std::runtime_error("sd-bus: " + std::to_string(result));
    }
    void answerQuestion(const SdBusMessage& call) {
        const char *interface = nullptr, *name = nullptr;
        check(sd_bus_message_read(call.get(), "ss", &interface, &name));
        const bool isMetered = std::string_view(name) == "Metered";
        const std::string_view service =
            isMetered ? "org.freedesktop.NetworkManager" : "org.freedesktop.UPower";
        const Property& property = isMetered ? metered : battery;
        if (property.type == 0 || sd_bus_message_get_destination(call.get()) != service ||
            interface != service) {
            check(sd_bus_reply_method_errorf(call.get(), SD_BUS_ERROR_SERVICE_UNKNOWN, "absent"));
        } else if (property.type == 's') {
            check(sd_bus_reply_method_return(call.get(), "v", "s", property.text));
        } else {
            check(sd_bus_reply_method_return(call.get(), "v", property.type == 'u' ? "u" : "b",
                                             property.number));
        }
    }

    const UniqueFd listener_;
    std::optional<BusPeer> peer_;
};

}  // namespace telvora::test
