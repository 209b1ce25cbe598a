// SPDX-License-Identifier: Apache-2.0
//
// The binary format: "bplist00", the objects, a table of their offsets, and a trailer of 32 bytes,
//
//     0   6 bytes   unused
//     6   1 byte    size of an offset in the table
//     7   1 byte    size of a reference from an array or dictionary to an object
//     8   8 bytes   number of objects
//     16  8 bytes   index of the top object
//     24  8 bytes   offset of the table
//
// with all integers big-endian. An object is a marker byte (type in the high nibble; length, or the length's
// exponent, in the low one), for a length of 15 or more an integer object holding it, and the content.
#include <bit>
#include <cstdint>
#include <optional>

#include "plist/property_list_format.h"
#include "plist/property_list_limits.h"
#include "plist/property_list_reader.h"

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

// A code point, or the three bytes that encode a surrogate.
void appendUtf8(std::string& text, uint32_t code) {
    const auto put = [&text](uint32_t byte) { text.push_back(static_cast<char>(byte)); };
    if (code < 0x80) return put(code);
    if (code < 0x800) {
        put(0xc0 | code >> 6);
    } else if (code < 0x10000) {
        put(0xe0 | code >> 12);
        put(0x80 | (code >> 6 & 0x3f));
    } else {
        put(0xf0 | code >> 18);
        put(0x80 | (code >> 12 & 0x3f));
        put(0x80 | (code >> 6 & 0x3f));
    }
    put(0x80 | (code & 0x3f));
}

class BinaryReader {
  public:
    explicit BinaryReader(std::string_view document) : document_(document) {}

    tl::expected<PropertyList, std::string> read() {
        PropertyList value = readTop();
        if (error_ != nullptr) return tl::make_unexpected(error_);
        return value;
    }

  private:
    struct Object {
        uint8_t type;      // the marker's high nibble
        uint64_t length;   // the marker's low nibble, or the length that follows it
        uint64_t content;  // offset of the content
    };

    // `bytes` bytes at `offset`; std::nullopt if they exceed the part of the document that holds the objects.
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

    PropertyList readTop() {
        if (document_.size() < kHeaderBytes + kTrailerBytes) return fail("truncated");
        const std::string_view trailer = document_.substr(document_.size() - kTrailerBytes);
        offsetBytes_ = static_cast<uint8_t>(trailer[6]);
        referenceBytes_ = static_cast<uint8_t>(trailer[7]);
        objectCount_ = readUnsigned(trailer.substr(8, 8));
        const uint64_t top = readUnsigned(trailer.substr(16, 8));
        tableStart_ = readUnsigned(trailer.substr(24, 8));

        const size_t tableEnd = document_.size() - kTrailerBytes;
        if (offsetBytes_ < 1 || offsetBytes_ > 8 || referenceBytes_ < 1 || referenceBytes_ > 8) {
            return fail("malformed trailer");
        }
        if (tableStart_ < kHeaderBytes || tableStart_ > tableEnd || objectCount_ == 0 ||
            objectCount_ > (tableEnd - tableStart_) / offsetBytes_) {
            return fail("object table out of bounds");
        }
        return valueAt(top, 0);
    }

    // Reading ends with the first failure.
    PropertyList fail(const char* reason) {
        if (error_ == nullptr) error_ = reason;
        return {};
    }

    // The object and all objects below it. `depth`: the number of containers around it. The recursion is at
    // most kMaxDocumentDepth deep and makes at most kMaxDocumentValues calls.
    PropertyList valueAt(uint64_t index, size_t depth) {
        const auto object = objectAt(index);
        if (!object) return fail(kOutOfBounds);
        switch (object->type) {
            case 0:
                if (object->length != 8 && object->length != 9) return fail("an object without a value");
                return object->length == 9;
            case 1:
                return integer(*object);
            case 2:
                return real(*object);
            case 3:
                return date(*object);
            case 4:
                return Data{std::string(content(*object, object->length))};
            case 5:
                return ascii(*object);
            case 6:
                return utf16(*object);
            case 8:
                return fail("a UID");
            case 10:
                return array(*object, depth + 1);
            case 13:
                return dictionary(*object, depth + 1);
            default:
                return fail("an object of unknown type");
        }
    }

    // The content; empty, after fail(), if it exceeds the document or the limit for the values of one
    // document.
    std::string_view content(const Object& object, uint64_t bytes) {
        const auto found = objectBytes(object.content, bytes);
        if (!found) {
            fail(kOutOfBounds);
            return {};
        }
        bytes_ += bytes;
        if (bytes_ > kMaxDocumentBytes) fail(kWhyTooLarge);
        return error_ == nullptr ? *found : std::string_view();
    }

    // One, two and four bytes are unsigned, eight signed; 16 hold values above eight signed ones.
    PropertyList integer(const Object& object) {
        if (object.length > 4) return fail("an integer of unknown size");
        const auto bytes = objectBytes(object.content, uint64_t{1} << object.length);
        if (!bytes) return fail(kOutOfBounds);
        if (object.length < 4) return static_cast<int64_t>(readUnsigned(*bytes));
        if (readUnsigned(bytes->substr(0, 8)) != 0) return fail("integer out of range");
        return readUnsigned(bytes->substr(8));
    }

    PropertyList real(const Object& object) {
        if (object.length != 2 && object.length != 3) return fail("a real of unknown size");
        const uint64_t bits = readUnsigned(content(object, uint64_t{1} << object.length));
        return object.length == 3 ? std::bit_cast<double>(bits)
                                  : double{std::bit_cast<float>(static_cast<uint32_t>(bits))};
    }

    PropertyList date(const Object& object) {
        if (object.length != 3) return fail("a date of unknown size");
        const double seconds =
            std::bit_cast<double>(readUnsigned(content(object, 8))) + kSecondsFrom1970To2001;
        if (!isDate(seconds)) return fail(kWhyNoDate);
        return Date{seconds};
    }

    std::string ascii(const Object& object) {
        const std::string_view text = content(object, object.length);
        if (const char* reason = whyNoText(text)) fail(reason);
        return std::string(text);
    }

    std::string utf16(const Object& object) {
        if (object.length > document_.size()) {
            fail(kOutOfBounds);
            return {};
        }
        const std::string_view bytes = content(object, object.length * 2);
        std::string text;
        text.reserve(bytes.size());
        for (size_t i = 0; i < bytes.size(); i += 2) {
            auto code = static_cast<uint32_t>(readUnsigned(bytes.substr(i, 2)));
            if (code >= 0xd800 && code < 0xdc00 && i + 2 < bytes.size()) {
                const auto low = static_cast<uint32_t>(readUnsigned(bytes.substr(i + 2, 2)));
                if (low >= 0xdc00 && low < 0xe000) {
                    code = 0x10000 + ((code - 0xd800) << 10) + (low - 0xdc00);
                    i += 2;
                }
            }
            appendUtf8(text, code);
        }
        if (const char* reason = whyNoText(text)) fail(reason);  // also for a lone surrogate
        return text;
    }

    // The references of a container. They count as values before memory is reserved for them.
    std::optional<std::string_view> references(const Object& object, uint64_t perElement, size_t depth) {
        if (depth > kMaxDocumentDepth) fail(kWhyTooDeep);
        if (object.length > kMaxDocumentValues ||
            (values_ += object.length * perElement) > kMaxDocumentValues) {
            fail(kWhyTooMany);
        }
        if (error_ != nullptr) return std::nullopt;
        const auto bytes = objectBytes(object.content, object.length * perElement * referenceBytes_);
        if (!bytes) fail(kOutOfBounds);
        return bytes;
    }
    uint64_t reference(std::string_view list, uint64_t at) const {
        return readUnsigned(list.substr(at * referenceBytes_, referenceBytes_));
    }

    PropertyList array(const Object& object, size_t depth) {
        const auto elements = references(object, 1, depth);
        if (!elements) return {};
        Array array;
        array.reserve(object.length);
        for (uint64_t i = 0; i < object.length && error_ == nullptr; ++i)
            array.push_back(valueAt(reference(*elements, i), depth));
        return array;
    }

    // All keys precede all values.
    PropertyList dictionary(const Object& object, size_t depth) {
        const auto elements = references(object, 2, depth);
        if (!elements) return {};
        std::vector<Dictionary::Entry> entries;
        entries.reserve(object.length);
        for (uint64_t i = 0; i < object.length && error_ == nullptr; ++i) {
            std::string key = keyAt(reference(*elements, i));
            entries.push_back({std::move(key), valueAt(reference(*elements, object.length + i), depth)});
        }
        return Dictionary::fromEntries(std::move(entries));
    }

    std::string keyAt(uint64_t index) {
        const auto object = objectAt(index);
        if (object && object->type == 5) return ascii(*object);
        if (object && object->type == 6) return utf16(*object);
        fail(object ? "a key that is no string" : kOutOfBounds);
        return {};
    }

    static constexpr const char* kOutOfBounds = "object out of bounds";

    std::string_view document_;
    uint64_t offsetBytes_ = 0;
    uint64_t referenceBytes_ = 0;
    uint64_t objectCount_ = 0;
    uint64_t tableStart_ = 0;
    uint64_t values_ = 1;  // keys included
    uint64_t bytes_ = 0;
    const char* error_ = nullptr;
};

}  // namespace

tl::expected<PropertyList, std::string> readBinaryPropertyList(std::string_view document) {
    return BinaryReader(document).read();
}

}  // namespace telvora
