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
    // Writes a body without a header, for complete().
    explicit WireWriter(std::string& body)
        : buffer_(body), start_(body.size()), size_(start_), body_(start_) {}
    WireWriter(const WireWriter&) = delete;
    WireWriter& operator=(const WireWriter&) = delete;
    // Takes an unfinished message off the buffer.
    ~WireWriter() {
        if (!finished_) buffer_.resize(start_);
    }

    template <WireNumber T>
    void append(T value) {
        align(sizeof value);
        std::memcpy(extend(sizeof value), &value, sizeof value);
    }
    void append(bool value) { append(uint32_t{value}); }
    // Text of the types 's' and 'o': UTF-8 without NUL.
    void append(std::string_view text) {
        append(static_cast<uint32_t>(text.size()));
        put(text);
        *extend(1) = '\0';
    }
    void append(const std::string& text) { append(std::string_view(text)); }
    void append(const char* text) { append(std::string_view(text)); }
    // A signature, or the beginning of a variant, whose one value of that type follows.
    void appendSignature(std::string_view signature) {
        *extend(1) = static_cast<char>(signature.size());
        put(signature);
        *extend(1) = '\0';
    }
    // An array of bytes.
    void appendBytes(std::string_view bytes) {
        append(static_cast<uint32_t>(bytes.size()));
        put(bytes);
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
        const size_t length = size_ - sizeof(uint32_t);
        align(elementAlignment);
        return {length, size_};
    }
    void closeArray(ArrayMark mark) {
        const size_t size = size_ - mark.start;
        if (size > kMaxArrayLength) tooLarge_ = true;
        putAt(mark.length, static_cast<uint32_t>(size));
    }

    // Ends the message. False, with the message taken off the buffer again, if it or one of its arrays
    // exceeds its limit.
    bool finish(size_t limit);

    // Appends a message to the buffer. `header`: a message without a body, whose serial number does not
    // count.
    static void complete(std::string& buffer, std::string_view header, uint32_t serial,
                         std::string_view body);

  private:
    // Bytes by which the buffer grows ahead of its content. A call of std::string for each value would cost
    // more than the value.
    static constexpr size_t kAhead = 256;

    // The next `count` bytes of the message. They may have any content.
    char* extend(size_t count) {
        if (buffer_.size() - size_ < count) grow(size_ + count);
        char* const place = buffer_.data() + size_;
        size_ += count;
        return place;
    }
    void grow(size_t size);
    void put(std::string_view bytes) {
        if (bytes.size() > kAhead) return putLong(bytes);
        bytes.copy(extend(bytes.size()), bytes.size());
    }
    void putLong(std::string_view bytes);
    void putAt(size_t position, uint32_t value) {
        std::memcpy(buffer_.data() + position, &value, sizeof value);
    }
    void align(size_t alignment) {
        const size_t padding = (start_ - size_) & (alignment - 1);
        std::memset(extend(padding), 0, padding);
    }
    void appendField(HeaderField field, std::string_view type, std::string_view text);
    void appendField(HeaderField field, uint32_t value);

    std::string& buffer_;
    const size_t start_;
    size_t size_;  // of the buffer's content
    size_t body_ = 0;
    bool tooLarge_ = false;
    bool finished_ = false;
};

}  // namespace telvora
