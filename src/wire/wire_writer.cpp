// SPDX-License-Identifier: Apache-2.0
#include "wire/wire_writer.h"

namespace telvora {

namespace {

constexpr size_t kBodySizePosition = 4;

}  // namespace

WireWriter::WireWriter(std::string& buffer, const MessageView& header)
    : buffer_(buffer), start_(buffer.size()) {
    buffer_.push_back(static_cast<char>(kNativeByteOrder));
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
    body_ = buffer_.size();
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

bool WireWriter::finish(size_t limit) {
    if (tooLarge_ || buffer_.size() - start_ > limit) return false;
    put(start_ + kBodySizePosition, static_cast<uint32_t>(buffer_.size() - body_));
    finished_ = true;
    return true;
}

}  // namespace telvora
