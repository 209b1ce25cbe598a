// SPDX-License-Identifier: Apache-2.0
//
// D-Bus messages without a peer: written, sealed, and read again.
#pragma once

#include <sys/socket.h>

#include <cstdarg>
#include <stdexcept>

#include "platform/bus_message.h"

namespace telvora::test {

class BusMessages {
  public:
    BusMessages() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0 || sd_bus_new(&bus_) < 0 ||
            sd_bus_set_fd(bus_, ends[0], ends[0]) < 0 || sd_bus_start(bus_) < 0) {
            throw std::runtime_error("no bus to make messages for");
        }
        peer_ = ends[1];
    }
    ~BusMessages() {
        sd_bus_close_unref(bus_);
        close(peer_);
    }
    BusMessages(const BusMessages&) = delete;
    BusMessages& operator=(const BusMessages&) = delete;

    BusMessage make() {
        sd_bus_message* message = nullptr;
        sd_bus_message_new_method_call(bus_, &message, nullptr, "/", "a.b", "C");
        return BusMessage::adopt(message);
    }
    // A message whose body sd_bus_message_append(3) makes of the signature and the values, ready to be read.
    BusMessage make(const char* signature, ...) {
        BusMessage message = make();
        va_list values;
        va_start(values, signature);
        const int result = sd_bus_message_appendv(message.get(), signature, values);
        va_end(values);
        if (result < 0) throw std::runtime_error(signature);
        return readable(std::move(message));
    }
    static BusMessage readable(BusMessage message) {
        if (sd_bus_message_seal(message.get(), 1, 0) < 0 || sd_bus_message_rewind(message.get(), true) < 0) {
            throw std::runtime_error("the message can't be sealed");
        }
        return message;
    }

  private:
    sd_bus* bus_ = nullptr;
    int peer_ = -1;
};

}  // namespace telvora::test
