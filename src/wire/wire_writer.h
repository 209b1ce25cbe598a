// SPDX-License-Identifier: Apache-2.0
//
// WireWriter: appends one message in the D-Bus wire format (D-Bus Specification, "Message Format") to a
// buffer of messages, in the byte order of the machine. The caller writes the header first, then the values
// of the body in the order of the signature, then calls finish(). The writer does not check the values
// against the signature: its callers are the descriptions of methods, whose types the compiler checks.
//
// Not thread-safe. The buffer outlives the writer and holds whole messages before and after it.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "wire/wire_message.h"

namespace telvora {

class WireWriter {
  public:
    // Writes the header. The texts of `header` are valid names; its body is not looked at.
    WireWriter(std::string& buffer, const MessageView& header);
    WireWriter(const WireWriter&) = delete;
    WireWriter& operator=(const WireWriter&) = delete;
    // Takes an unfinished message off the buffer.
    ~WireWriter() {
        if (!finished_) buffer_.resize(start_);
    }

    template <WireNumber T>
    void append(T value) {
        align(sizeof value);
        buffer_.append(reinterpret_cast<const char*>(&value), sizeof value);
    }
    void append(bool value) { append(uint32_t{value}); }
    // Text of the types 's' and 'o': UTF-8 without NUL.
    void append(std::string_view text) {
        append(static_cast<uint32_t>(text.size()));
        buffer_.append(text);
        buffer_.push_back('\0');
    }
    void append(const std::string& text) { append(std::string_view(text)); }
    void append(const char* text) { append(std::string_view(text)); }
    // A signature, or the beginning of a variant, whose one value of that type follows.
    void appendSignature(std::string_view signature) {
        buffer_.push_back(static_cast<char>(signature.size()));
        buffer_.append(signature);
        buffer_.push_back('\0');
    }
    // An array of bytes.
    void appendBytes(std::string_view bytes) {
        append(static_cast<uint32_t>(bytes.size()));
        buffer_.append(bytes);
    }
    // The beginning of a structure or of a dictionary's entry.
    void beginStructure() { align(8); }

    // An array whose elements have this alignment. Its elements follow, then closeArray() with the mark.
    struct ArrayMark {
        size_t length;  // position of the length
        size_t start;   // position of the first element
    };
    ArrayMark openArray(size_t elementAlignment) {
        append(uint32_t{0});
        const size_t length = buffer_.size() - sizeof(uint32_t);
        align(elementAlignment);
        return {length, buffer_.size()};
    }
    void closeArray(ArrayMark mark) {
        const size_t size = buffer_.size() - mark.start;
        if (size > kMaxArrayLength) tooLarge_ = true;
        put(mark.length, static_cast<uint32_t>(size));
    }

    // Ends the message. False, with the message taken off the buffer again, if it or one of its arrays
    // exceeds its limit.
    bool finish(size_t limit);

  private:
    void align(size_t alignment) {
        const size_t size = buffer_.size() - start_;
        buffer_.append(((size + alignment - 1) & ~(alignment - 1)) - size, '\0');
    }
    void put(size_t position, uint32_t value) {
        std::memcpy(buffer_.data() + position, &value, sizeof value);
    }
    void appendField(HeaderField field, std::string_view type, std::string_view text);
    void appendField(HeaderField field, uint32_t value);

    std::string& buffer_;
    const size_t start_;
    size_t body_ = 0;
    bool tooLarge_ = false;
    bool finished_ = false;
};

}  // namespace telvora
