// SPDX-License-Identifier: Apache-2.0
//
// Received messages without a peer that stays: written by sd-bus, or by WireWriter.
#pragma once

#include <cstdarg>
#include <functional>
#include <memory>

#include "bus/bus_input.h"
#include "tests/support/bus_peer.h"
#include "wire/wire_writer.h"

namespace telvora::test {

struct MessageBytes {
    std::string bytes;
};

// A message with its bytes.
struct OwnedMessage : private MessageBytes, public BusMessage {
    explicit OwnedMessage(std::string content)
        : MessageBytes{std::move(content)}, BusMessage(parseMessage(bytes, 1).value().value(), {}) {}
};

class BusMessages {
  public:
    BusMessages() {
        // The server's whole part of the authentication.
        const std::string answer = "DATA\r\nOK " + std::string(32, '0') + "\r\nAGREE_UNIX_FD\r\n";
        if (send(ours_.get(), answer.data(), answer.size(), MSG_NOSIGNAL) < 0)
            throw std::runtime_error("send");
        constexpr std::string_view kEnd = "BEGIN\r\n";
        for (size_t end = std::string_view::npos; end == std::string_view::npos; input_.keepRest()) {
            peer_.process();
            receive();
            end = input_.bytes().find(kEnd);
            if (end != std::string_view::npos) input_.take(end + kEnd.size());
        }
    }

    // A message whose body sd_bus_message_append(3) makes of the signature and the values.
    std::unique_ptr<OwnedMessage> make(const char* signature, ...) {
        SdBusMessage message = peer_.newCall("/", "a.b", "C");
        va_list values;
        va_start(values, signature);
        const int result = sd_bus_message_appendv(message.get(), signature, values);
        va_end(values);
        if (result < 0) throw std::runtime_error(signature);
        return sent(message);
    }
    // A message whose body `write` appends.
    std::unique_ptr<OwnedMessage> make(const std::function<void(SdBusMessage&)>& write) {
        SdBusMessage message = peer_.newCall("/", "a.b", "C");
        write(message);
        return sent(message);
    }
    // A message that WireWriter writes. Null if `write` returns false.
    static std::unique_ptr<OwnedMessage> written(std::string_view signature,
                                                 const std::function<bool(WireWriter&)>& write) {
        std::string bytes;
        MessageView header;
        header.type = MessageType::methodReturn;
        header.serial = header.replySerial = 1;
        header.signature = signature;
        WireWriter writer(bytes, header);
        if (!write(writer) || !writer.finish(size_t{1} << 20)) return nullptr;
        return std::make_unique<OwnedMessage>(bytes);
    }

  private:
    void receive() {
        if (!input_.receive(ours_.get())) throw std::runtime_error("receive");
    }
    std::unique_ptr<OwnedMessage> sent(const SdBusMessage& message) {
        peer_.send(message);
        for (;;) {
            peer_.process();
            receive();
            const auto bytes = input_.nextMessage().value();
            auto owned = bytes ? std::make_unique<OwnedMessage>(std::string(*bytes)) : nullptr;
            input_.keepRest();
            if (owned) return owned;
        }
    }

    SocketPair sockets_;
    BusPeer peer_{std::move(sockets_.theirs)};
    UniqueFd ours_ = std::move(sockets_.ours);
    BusInput input_{size_t{1} << 20};
};

}  // namespace telvora::test
