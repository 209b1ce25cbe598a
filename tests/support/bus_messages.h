// SPDX-License-Identifier: Apache-2.0
//
// D-Bus messages without a peer: written, sealed, and read again.
#pragma once

#include <cstdarg>

#include "tests/support/bus_peer.h"

namespace telvora::test {

class BusMessages {
  public:
    SdBusMessage make() { return bus_.newCall("/", "a.b", "C"); }
    // A message whose body sd_bus_message_append(3) makes of the signature and the values, ready to be read.
    SdBusMessage make(const char* signature, ...) {
        SdBusMessage message = make();
        va_list values;
        va_start(values, signature);
        const int result = sd_bus_message_appendv(message.get(), signature, values);
        va_end(values);
        if (result < 0) throw std::runtime_error(signature);
        return readable(std::move(message));
    }
    static SdBusMessage readable(SdBusMessage message) {
        if (sd_bus_message_seal(message.get(), 1, 0) < 0 || sd_bus_message_rewind(message.get(), true) < 0) {
            throw std::runtime_error("the message can't be sealed");
        }
        return message;
    }

  private:
    SocketPair sockets_;
    BusPeer bus_{std::move(sockets_.ours)};
};

}  // namespace telvora::test
