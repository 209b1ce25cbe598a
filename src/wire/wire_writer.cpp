// SPDX-License-Identifier: Apache-2.0
#include "wire/wire_writer.h"

#include <algorithm>

namespace telvora {

namespace {

constexpr size_t kBodySizePosition = 4;
constexpr size_t kSerialPosition = 8;

}  // namespace

WireWriter::WireWriter(std::string& buffer, const MessageView& header)
    : buffer_(buffer), start_(buffer.size()), size_(start_) {
    append(static_cast<uint8_t>(kNativeByteOrder));
    append(static_cast<uint8_t>(header.type));
    append(header.flags);
    append(kBusProtocolVersion);
    append(uint32_t{0});  // the body's size, set by finish()
    append(header.serial);
    const ArrayMark fields = openArray(8);
    if (!header.path.empty()) appendField(HeaderField::path, "o", header.path);
    if (header.replySerial != 0) appendField(HeaderField::replySerial, header.replySerial);
    if (!header.interface.empty()) appendField(HeaderField::interface, "s", header.interface);
    if (!header.member.empty()) appendField(HeaderField::member, "s", header.member);
    if (!header.errorName.empty()) appendField(HeaderField::errorName, "s", header.errorName);
    if (!header.destination.empty()) appendField(HeaderField::destination, "s", header.destination);
    if (!header.sender.empty()) appendField(HeaderField::sender, "s", header.sender);
    if (!header.signature.empty()) appendField(HeaderField::signature, "g", header.signature);
    if (header.descriptors != 0) appendField(HeaderField::unixDescriptors, header.descriptors);
    closeArray(fields);
    align(8);
    body_ = size_;
}

void WireWriter::appendField(HeaderField field, std::string_view type, std::string_view text) {
    beginStructure();
    append(static_cast<uint8_t>(field));
    appendSignature(type);
    type == "g" ? appendSignature(text) : append(text);
}

void WireWriter::appendField(HeaderField field, uint32_t value) {
    beginStructure();
    append(static_cast<uint8_t>(field));
    appendSignature("u");
    append(value);
}

// Stays within the room that the caller has reserved, if that suffices.
void WireWriter::grow(size_t size) {
    const size_t capacity = buffer_.capacity();
    buffer_.resize(size <= capacity ? std::min(size + kAhead, capacity) : size + kAhead);
}

// Without filling the place with zeros first.
void WireWriter::putLong(std::string_view bytes) {
    buffer_.resize(size_);
    if (buffer_.capacity() < size_ + bytes.size()) buffer_.reserve(size_ + bytes.size() + kAhead);
    buffer_.append(bytes);
    size_ = buffer_.size();
}

bool WireWriter::finish(size_t limit) {
    if (tooLarge_ || size_ - start_ > limit) return false;
    if (body_ != start_) putAt(start_ + kBodySizePosition, static_cast<uint32_t>(size_ - body_));
    buffer_.resize(size_);
    finished_ = true;
    return true;
}

void WireWriter::complete(std::string& buffer, std::string_view header, uint32_t serial,
                          std::string_view body) {
    const size_t start = buffer.size();
    buffer.append(header).append(body);
    const auto bodySize = static_cast<uint32_t>(body.size());
    std::memcpy(buffer.data() + start + kBodySizePosition, &bodySize, sizeof bodySize);
    std::memcpy(buffer.data() + start + kSerialPosition, &serial, sizeof serial);
}

}  // namespace telvora
