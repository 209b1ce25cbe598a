// SPDX-License-Identifier: Apache-2.0
//
// Messages of the D-Bus Specification ("Message Format") as views of the bytes that were received.
// Thread-safe: no shared state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <tl/expected.hpp>

#include "wire/wire_reader.h"

namespace telvora {

inline constexpr uint8_t kBusProtocolVersion = 1;
// Every message begins with a header of at least this size.
inline constexpr size_t kFixedHeaderSize = 16;

enum class MessageType : uint8_t { methodCall = 1, methodReturn = 2, error = 3, signal = 4 };

enum MessageFlag : uint8_t { kNoReplyExpected = 1, kNoAutoStart = 2, kAllowInteractiveAuthorization = 4 };

enum class HeaderField : uint8_t {
    path = 1,
    interface = 2,
    member = 3,
    errorName = 4,
    replySerial = 5,
    destination = 6,
    sender = 7,
    signature = 8,
    unixDescriptors = 9,
};

// A validated header. The texts are views of the message's bytes; a field that is absent is empty or 0.
struct MessageView {
    MessageType type{};
    uint8_t flags = 0;
    ByteOrder order = kNativeByteOrder;
    uint32_t serial = 0;
    uint32_t replySerial = 0;
    uint32_t descriptors = 0;
    std::string_view path;
    std::string_view interface;
    std::string_view member;
    std::string_view errorName;
    std::string_view destination;
    std::string_view sender;
    std::string_view signature;
    std::string_view fields;  // the bytes that the values from replySerial to signature were read from
    std::string_view body;    // not validated

    // Reads the body.
    WireReader reader() const { return {body, signature, order, descriptors}; }

    friend bool operator==(const MessageView&, const MessageView&) = default;
};

// The rule that bytes violate.
using WireViolation = const char*;
inline tl::unexpected<WireViolation> violated(WireViolation rule) {
    return tl::unexpected<WireViolation>(rule);
}

// The size in bytes of the message that begins with these bytes, which are kFixedHeaderSize at least. The
// result does not exceed `limit`: a larger message is a violation.
tl::expected<size_t, WireViolation> messageSize(std::string_view start, size_t limit);

// Parses a whole message and validates its header. `descriptors`: how many file descriptors came with it
// or with what follows it. `previous`: a message whose bytes are still there, or null: if this one has the
// same header fields, as the calls of a client mostly do, they are not read again, and their texts are views
// of the bytes of `previous`.
// std::nullopt for a message of a type that D-Bus does not define, which receivers ignore.
tl::expected<std::optional<MessageView>, WireViolation> parseMessage(std::string_view bytes,
                                                                     uint32_t descriptors,
                                                                     const MessageView* previous = nullptr);

}  // namespace telvora
