// SPDX-License-Identifier: Apache-2.0
#include "wire/wire_message.h"

#include <cstring>

#include "wire/dbus_names.h"

namespace telvora {

namespace {

constexpr size_t kFieldsStart = 12;  // of the array's length
constexpr std::string_view kFieldsSignature = "a(yv)";
// Reserved for messages that an implementation makes for itself.
constexpr std::string_view kLocalPath = "/org/freedesktop/DBus/Local";
constexpr std::string_view kLocalInterface = "org.freedesktop.DBus.Local";

size_t padded(size_t size) {
    return (size + 7) & ~size_t{7};
}

struct FixedHeader {
    ByteOrder order{};
    uint8_t type = 0;
    uint8_t flags = 0;
    uint32_t bodySize = 0;
    uint32_t serial = 0;
    uint32_t fieldsSize = 0;
};

uint32_t numberAt(std::string_view bytes, size_t position, ByteOrder order) {
    uint32_t number;
    std::memcpy(&number, bytes.data() + position, sizeof number);
    return order == kNativeByteOrder ? number : __builtin_bswap32(number);
}

tl::expected<FixedHeader, WireViolation> fixedHeader(std::string_view bytes) {
    const char order = bytes[0];
    if (order != 'l' && order != 'B') return violated("a message has an unknown byte order");
    FixedHeader header;
    header.order = static_cast<ByteOrder>(order);
    header.type = static_cast<uint8_t>(bytes[1]);
    header.flags = static_cast<uint8_t>(bytes[2]);
    header.bodySize = numberAt(bytes, 4, header.order);
    header.serial = numberAt(bytes, 8, header.order);
    header.fieldsSize = numberAt(bytes, kFieldsStart, header.order);
    if (bytes[3] != kBusProtocolVersion) return violated("a message has an unknown protocol version");
    if (header.type == 0) return violated("a message has the invalid type");
    if (header.serial == 0) return violated("a message has the serial number 0");
    if (header.fieldsSize > kMaxArrayLength) return violated("an array is too long");
    return header;
}

// Reads the fields of one header, each at most once.
class FieldReader {
  public:
    FieldReader(WireReader& reader, MessageView& view) : reader_(reader), view_(view) {}

    WireViolation run() {
        if (!reader_.enter()) return violation();
        while (!reader_.atEnd()) {
            if (const WireViolation found = readField()) return found;
        }
        return reader_.leave() ? nullptr : violation();
    }

  private:
    WireViolation violation() const {
        return reader_.violation() != nullptr ? reader_.violation() : "a header field has another type";
    }

    WireViolation readField() {
        uint8_t code = 0;
        if (!reader_.enter() || !reader_.read(code) || !reader_.enter()) return violation();
        if (code == 0) return "a header field has the code 0";
        if (code <= static_cast<uint8_t>(HeaderField::unixDescriptors)) {
            const unsigned bit = 1U << code;
            if ((seen_ & bit) != 0) return "a header field is there twice";
            seen_ |= bit;
            if (const WireViolation found = readKnown(static_cast<HeaderField>(code))) return found;
        }
        return reader_.leave() && reader_.leave() ? nullptr : violation();
    }

    WireViolation readKnown(HeaderField field) {
        switch (field) {
            case HeaderField::path:
                if (const WireViolation found = readText('o', view_.path)) return found;
                return view_.path == kLocalPath ? "the local path is reserved" : nullptr;
            case HeaderField::interface:
                if (const WireViolation found = readName(view_.interface, isInterfaceName)) return found;
                return view_.interface == kLocalInterface ? "the local interface is reserved" : nullptr;
            case HeaderField::member:
                return readName(view_.member, isMemberName);
            case HeaderField::errorName:
                return readName(view_.errorName, isErrorName);
            case HeaderField::replySerial:
                if (!reader_.read(view_.replySerial)) return violation();
                return view_.replySerial == 0 ? "a reply is to the serial number 0" : nullptr;
            case HeaderField::destination:
                return readName(view_.destination, isBusName);
            case HeaderField::sender:
                return readName(view_.sender, isBusName);
            case HeaderField::signature:
                return readText('g', view_.signature);
            case HeaderField::unixDescriptors:
                return reader_.read(view_.descriptors) ? nullptr : violation();
        }
        return nullptr;
    }

    WireViolation readText(char type, std::string_view& text) {
        return reader_.type() == type && reader_.read(text) ? nullptr : violation();
    }
    WireViolation readName(std::string_view& text, bool (*isValid)(std::string_view)) {
        if (const WireViolation found = readText('s', text)) return found;
        return isValid(text) ? nullptr : "a name in the header is invalid";
    }

    WireReader& reader_;
    MessageView& view_;
    unsigned seen_ = 0;
};

// The fields that each type of message must have.
bool hasRequiredFields(const MessageView& view) {
    switch (view.type) {
        case MessageType::methodCall:
            return !view.path.empty() && !view.member.empty();
        case MessageType::methodReturn:
            return view.replySerial != 0;
        case MessageType::error:
            return view.replySerial != 0 && !view.errorName.empty();
        case MessageType::signal:
            return !view.path.empty() && !view.interface.empty() && !view.member.empty();
    }
    return true;
}

// Sets the fields of a header that `bytes` begin with.
WireViolation readFields(std::string_view bytes, size_t size, MessageView& view) {
    const size_t end = kFixedHeaderSize + size;
    WireReader reader(bytes.substr(0, end), kFieldsSignature, view.order, 0, kFieldsStart);
    if (const WireViolation found = FieldReader(reader, view).run()) return found;
    for (size_t at = end; at < padded(end); ++at) {
        if (bytes[at] != 0) return "padding is not zero";
    }
    return hasRequiredFields(view) ? nullptr : "a header field is missing";
}

}  // namespace

tl::expected<size_t, WireViolation> messageSize(std::string_view start, size_t limit) {
    const auto header = fixedHeader(start);
    if (!header) return violated(header.error());
    const size_t size = kFixedHeaderSize + padded(header->fieldsSize) + header->bodySize;
    if (size > limit) return violated("a message is too large");
    return size;
}

tl::expected<std::optional<MessageView>, WireViolation> parseMessage(std::string_view bytes,
                                                                     uint32_t descriptors,
                                                                     const MessageView* previous) {
    const auto header = fixedHeader(bytes);
    if (!header) return violated(header.error());
    const size_t bodyStart = kFixedHeaderSize + padded(header->fieldsSize);
    if (bytes.size() != bodyStart + header->bodySize) return violated("a message has another size");

    MessageView view;
    view.type = static_cast<MessageType>(header->type);
    view.order = header->order;
    view.fields = bytes.substr(kFieldsStart, bodyStart - kFieldsStart);
    if (previous != nullptr && previous->type == view.type && previous->order == view.order &&
        previous->fields == view.fields) {
        view = *previous;
    } else if (const WireViolation found = readFields(bytes, header->fieldsSize, view)) {
        return violated(found);
    }
    if (view.type > MessageType::signal) return std::nullopt;
    if (view.descriptors > descriptors) return violated("a file descriptor did not come with its message");
    view.flags = header->flags;
    view.serial = header->serial;
    view.body = bytes.substr(bodyStart);
    return view;
}

}  // namespace telvora
