// SPDX-License-Identifier: Apache-2.0
//
// WireReader: reads values of the D-Bus wire format (D-Bus Specification, "Marshaling") in their order, and
// validates each as it reads it. It copies and allocates no value: texts are views of the bytes.
//
// Every operation returns false when the bytes violate the format, when the next value has another type, or
// when there is none. violation() separates the first case from the others: it names the rule and stays set,
// and all later operations fail. The connection of a peer that violates the format must end.
//
// A caller that skips values need not: finish() validates all that is left. Not thread-safe.
#pragma once

#include <array>
#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "wire/dbus_signature.h"

namespace telvora {

enum class ByteOrder : char { little = 'l', big = 'B' };
inline constexpr ByteOrder kNativeByteOrder =
    std::endian::native == std::endian::little ? ByteOrder::little : ByteOrder::big;

// Of containers in a value, variants included.
inline constexpr unsigned kMaxContainerDepth = 64;
inline constexpr uint32_t kMaxArrayLength = uint32_t{1} << 26;

template <typename T>
concept WireNumber = std::same_as<T, uint8_t> || std::same_as<T, int16_t> || std::same_as<T, uint16_t> ||
    std::same_as<T, int32_t> || std::same_as<T, uint32_t> || std::same_as<T, int64_t> ||
    std::same_as<T, uint64_t> || std::same_as<T, double>;

// The type character of a number.
template <WireNumber T>
constexpr char wireTypeOf() {
    if constexpr (std::same_as<T, uint8_t>) return 'y';
    if constexpr (std::same_as<T, int16_t>) return 'n';
    if constexpr (std::same_as<T, uint16_t>) return 'q';
    if constexpr (std::same_as<T, int32_t>) return 'i';
    if constexpr (std::same_as<T, uint32_t>) return 'u';
    if constexpr (std::same_as<T, int64_t>) return 'x';
    if constexpr (std::same_as<T, uint64_t>) return 't';
    if constexpr (std::same_as<T, double>) return 'd';
}

class WireReader {
  public:
    // `bytes` begin at a multiple of 8 of their message; reading begins at `start`. `signature` is valid.
    // `descriptors`: how many came with the message. `bytes` and `signature` outlive the reader.
    WireReader(std::string_view bytes, std::string_view signature, ByteOrder order, uint32_t descriptors = 0,
               size_t start = 0)
        : bytes_(bytes.data()),
          position_(start),
          swap_(order != kNativeByteOrder),
          descriptors_(descriptors) {
        frames_[0] = {signature.data(), signature.data(), signature.data() + signature.size(), bytes.size(),
                      0};
    }
    WireReader(const WireReader&) = delete;
    WireReader& operator=(const WireReader&) = delete;

    // The type character of the next value in this container; 0 at the container's end.
    char type() const {
        const Frame& frame = frames_[depth_];
        if (frame.type == frame.typesEnd) return 0;
        return frame.isArray() && position_ == frame.end ? '\0' : *frame.type;
    }
    bool atEnd() const { return type() == 0; }
    // The complete types of the values that follow in this container, the next one first.
    std::string_view types() const {
        const Frame& frame = frames_[depth_];
        return {frame.type, static_cast<size_t>(frame.typesEnd - frame.type)};
    }

    // The bytes that this container may still have.
    size_t remaining() const { return frames_[depth_].end - position_; }

    template <WireNumber T>
    bool read(T& value) {
        return type() == wireTypeOf<T>() && readFixed(value) && consumed();
    }
    bool read(bool& value);
    // Text of one of the types 's', 'o' and 'g'.
    bool read(std::string_view& text);
    // An array of bytes.
    bool readBytes(std::string_view& bytes);
    // The index of a file descriptor of the message. False, too, if the message has no descriptor of that
    // index, which is not a violation of the format.
    bool readDescriptor(uint32_t& index);

    // Enters the next value, a container: an array, a structure, a dictionary's entry or a variant.
    bool enter();
    // Leaves the container that was entered last. Validates its values that were not read.
    bool leave();
    // Validates the next value.
    bool skip();
    // Validates everything that is left, in all containers. True if all bytes were valid and are used up.
    bool finish();

    // The rule that the bytes violate; null: none so far.
    const char* violation() const { return violation_; }

  private:
    // One open container. Its values end at `end` at the latest.
    struct Frame {
        const char* type;  // of the next value
        const char* typesBegin;
        const char* typesEnd;
        size_t end;
        unsigned arrayMark;  // 1: an array, whose one type applies to each element
        bool isArray() const { return arrayMark != 0; }
    };

    // Leaves all containers, and nothing follows.
    bool fail(const char* violation) {
        if (violation_ == nullptr) violation_ = violation;
        depth_ = 0;
        frames_[0].type = frames_[0].typesEnd;
        return false;
    }
    bool align(size_t alignment);
    bool advance(size_t size) {
        if (frames_[depth_].end - position_ < size) return fail("a value ends beyond its container");
        position_ += size;
        return true;
    }
    // After a value: the next one's type.
    bool consumed(size_t typeLength = 1) {
        Frame& frame = frames_[depth_];
        frame.type += typeLength;
        if (frame.isArray()) frame.type = frame.typesBegin;
        return true;
    }
    template <WireNumber T>
    bool readFixed(T& value) {
        if (!align(sizeof value) || !advance(sizeof value)) return false;
        std::memcpy(&value, bytes_ + position_ - sizeof value, sizeof value);
        if (swap_) value = swapped(value);
        return true;
    }
    template <WireNumber T>
    static T swapped(T value) {
        if constexpr (sizeof value == 1) return value;
        if constexpr (sizeof value == 2)
            return static_cast<T>(__builtin_bswap16(static_cast<uint16_t>(value)));
        if constexpr (sizeof value == 4)
            return static_cast<T>(__builtin_bswap32(static_cast<uint32_t>(value)));
        if constexpr (sizeof value == 8)
            return std::bit_cast<T>(__builtin_bswap64(std::bit_cast<uint64_t>(value)));
    }
    bool readText(char type, std::string_view& text);
    bool readSignature(std::string_view& signature);
    bool push(std::string_view type, std::string_view contents, size_t end, bool isArray = false);
    bool enterArray(std::string_view type);
    bool skipFixedElements();

    const char* bytes_;
    size_t position_;
    bool swap_;
    uint32_t descriptors_;
    unsigned depth_ = 0;
    const char* violation_ = nullptr;
    std::array<Frame, kMaxContainerDepth + 1> frames_;
};

inline bool WireReader::align(size_t alignment) {
    const size_t aligned = (position_ + alignment - 1) & ~(alignment - 1);
    if (aligned == position_) return true;
    if (aligned > frames_[depth_].end) return fail("a value ends beyond its container");
    for (; position_ < aligned; ++position_) {
        if (bytes_[position_] != 0) return fail("padding is not zero");
    }
    return true;
}

}  // namespace telvora
