// SPDX-License-Identifier: Apache-2.0
//
// The binary format: "bplist00", the objects, a table of their offsets, and a trailer of 32 bytes,
//
//     0   6 bytes   unused
//     6   1 byte    size of an offset in the table
//     7   1 byte    size of a reference from an array or dictionary to an object
//     8   8 bytes   number of objects
//     16  8 bytes   index of the top object
//     24  8 bytes   where the table begins
//
// with all integers big-endian. An object is a marker byte (type in the high nibble; length, or the length's
// exponent, in the low one), for a length of 15 or more an integer object holding it, and the content.
#include <cstdint>
#include <optional>

#include "platform/property_list_format.h"
#include "platform/property_list_guard.h"

namespace telvora {

namespace {

constexpr size_t kHeaderBytes = 8;
constexpr size_t kTrailerBytes = 32;

uint64_t readUnsigned(std::string_view bytes) {
    uint64_t value = 0;
    for (const char byte : bytes)
        value = value << 8 | static_cast<uint8_t>(byte);
    return value;
}

class BinaryWalker {
  public:
    explicit BinaryWalker(std::string_view document) : document_(document) {}

    const char* walk() {
        if (document_.size() < kHeaderBytes + kTrailerBytes) return "truncated";
        const std::string_view trailer = document_.substr(document_.size() - kTrailerBytes);
        offsetBytes_ = static_cast<uint8_t>(trailer[6]);
        referenceBytes_ = static_cast<uint8_t>(trailer[7]);
        objectCount_ = readUnsigned(trailer.substr(8, 8));
        const uint64_t top = readUnsigned(trailer.substr(16, 8));
        tableStart_ = readUnsigned(trailer.substr(24, 8));

        const size_t tableEnd = document_.size() - kTrailerBytes;
        if (offsetBytes_ < 1 || offsetBytes_ > 8 || referenceBytes_ < 1 || referenceBytes_ > 8) {
            return "malformed trailer";
        }
        if (tableStart_ < kHeaderBytes || tableStart_ > tableEnd || objectCount_ == 0 ||
            objectCount_ > (tableEnd - tableStart_) / offsetBytes_) {
            return "object table out of bounds";
        }
        return visit(top, 0, false);
    }

  private:
    struct Object {
        uint8_t type;      // the marker's high nibble
        uint64_t length;   // the marker's low nibble, or the length that follows it
        uint64_t content;  // where the content begins
    };

    // `bytes` at `offset`, or nothing when that leaves the part of the document that holds the objects.
    std::optional<std::string_view> objectBytes(uint64_t offset, uint64_t bytes) const {
        if (offset < kHeaderBytes || offset > tableStart_ || bytes > tableStart_ - offset)
            return std::nullopt;
        return document_.substr(offset, bytes);
    }

    std::optional<Object> objectAt(uint64_t index) const {
        if (index >= objectCount_) return std::nullopt;
        const uint64_t offset =
            readUnsigned(document_.substr(tableStart_ + index * offsetBytes_, offsetBytes_));
        const auto marker = objectBytes(offset, 1);
        if (!marker) return std::nullopt;
        const auto byte = static_cast<uint8_t>(marker->front());
        Object object{static_cast<uint8_t>(byte >> 4), byte & 0x0fu, offset + 1};
        if (object.length != 15 || object.type < 4) return object;

        const auto lengthMarker = objectBytes(object.content, 1);
        if (!lengthMarker || (lengthMarker->front() & 0xfc) != 0x10) return std::nullopt;
        const uint64_t lengthBytes = uint64_t{1} << (lengthMarker->front() & 3);
        const auto length = objectBytes(object.content + 1, lengthBytes);
        if (!length) return std::nullopt;
        object.length = readUnsigned(*length);
        object.content += 1 + lengthBytes;
        return object;
    }

    // Checks the object and all below it. `depth`: the containers around it. The recursion ends at
    // kMaxPropertyListDepth, and altogether after kMaxPropertyListValues calls.
    const char* visit(uint64_t index, size_t depth, bool asKey) {
        if (++values_ > kMaxPropertyListValues) return "too many values";
        const auto object = objectAt(index);
        if (!object) return "object out of bounds";
        if (asKey && object->type != 5 && object->type != 6) return "a key that is no string";

        switch (object->type) {
            case 0:
                return object->length == 8 || object->length == 9 ? nullptr : "an object without a value";
            case 1:
                return checkInteger(*object);
            case 2:
                return object->length == 2 || object->length == 3 ? content(*object, 1u << object->length)
                                                                  : "a real of unknown size";
            case 3:
                return object->length == 3 ? content(*object, 8) : "a date of unknown size";
            case 4:
                return content(*object, object->length);
            case 5:
                return checkAscii(*object);
            case 6:
                return checkUtf16(*object);
            case 8:
                return "a UID";
            case 10:
                return visitReferences(*object, 0, depth + 1);
            case 13:
                return visitReferences(*object, object->length, depth + 1);
            default:
                return "an object of unknown type";
        }
    }

    const char* content(const Object& object, uint64_t bytes) {
        if (!objectBytes(object.content, bytes)) return "object out of bounds";
        bytes_ += bytes;
        return bytes_ <= kMaxPropertyListBytes ? nullptr : "too many bytes";
    }

    const char* checkInteger(const Object& object) {
        if (object.length > 4) return "an integer of unknown size";
        const auto bytes = objectBytes(object.content, uint64_t{1} << object.length);
        if (!bytes) return "object out of bounds";
        // 16 bytes hold what is too large for a signed integer of 8; libplist reads the lower half alone.
        return object.length < 4 || readUnsigned(bytes->substr(0, 8)) == 0 ? nullptr : "integer out of range";
    }

    const char* checkAscii(const Object& object) {
        const char* error = content(object, object.length);
        if (error != nullptr) return error;
        const std::string_view text = document_.substr(object.content, object.length);
        return text.find('\0') == std::string_view::npos ? nullptr : "a string with a zero byte";
    }

    // A zero unit would end libplist's copy early, and its assertion on a key's length would end the process.
    const char* checkUtf16(const Object& object) {
        if (object.length > document_.size()) return "object out of bounds";
        const char* error = content(object, object.length * 2);
        if (error != nullptr) return error;
        const std::string_view units = document_.substr(object.content, object.length * 2);
        for (size_t i = 0; i < units.size(); i += 2) {
            if (units[i] == 0 && units[i + 1] == 0) return "a string with a zero byte";
        }
        return nullptr;
    }

    // An array's elements (`keys` 0), or a dictionary's keys and then its values.
    const char* visitReferences(const Object& object, uint64_t keys, size_t depth) {
        if (depth > kMaxPropertyListDepth) return "nested too deeply";
        if (object.length > kMaxPropertyListValues) return "too many values";
        const uint64_t count = object.length + keys;
        if (!objectBytes(object.content, count * referenceBytes_)) return "object out of bounds";
        for (uint64_t i = 0; i < count; ++i) {
            const std::string_view reference =
                document_.substr(object.content + i * referenceBytes_, referenceBytes_);
            const char* error = visit(readUnsigned(reference), depth, i < keys);
            if (error != nullptr) return error;
        }
        return nullptr;
    }

    std::string_view document_;
    uint64_t offsetBytes_ = 0;
    uint64_t referenceBytes_ = 0;
    uint64_t objectCount_ = 0;
    uint64_t tableStart_ = 0;
    uint64_t values_ = 0;
    uint64_t bytes_ = 0;
};

}  // namespace

tl::expected<void, std::string> checkBinaryPropertyList(std::string_view document) {
    if (const char* error = BinaryWalker(document).walk()) return tl::make_unexpected(error);
    return {};
}

}  // namespace telvora
