// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>
#include <vector>

#include "plist/property_list_limits.h"
#include "plist/property_list_writer.h"

namespace telvora {

namespace {

std::u16string utf16From(std::string_view utf8) {
    std::u16string units;
    for (size_t i = 0; i < utf8.size();) {
        const auto lead = static_cast<uint8_t>(utf8[i]);
        const size_t length = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
        uint32_t code = length == 1 ? lead : lead & (0xffu >> (length + 1));
        for (size_t next = 1; next < length; ++next)
            code = code << 6 | (static_cast<uint8_t>(utf8[i + next]) & 0x3fu);
        i += length;
        if (code >= 0x10000) {
            units.push_back(static_cast<char16_t>(0xd800 + ((code - 0x10000) >> 10)));
            code = 0xdc00 + ((code - 0x10000) & 0x3ff);
        }
        units.push_back(static_cast<char16_t>(code));
    }
    return units;
}

size_t bytesFor(uint64_t value) {
    return value <= 0xff ? 1 : value <= 0xffff ? 2 : value <= 0xffffffff ? 4 : 8;
}

class BinaryWriter {
  public:
    explicit BinaryWriter(size_t objects) : referenceBytes_(bytesFor(objects)) { offsets_.reserve(objects); }

    std::string write(const PropertyList& top) {
        writeObject(top);
        const uint64_t tableStart = document_.size();
        const size_t offsetBytes = bytesFor(tableStart);
        for (const uint64_t offset : offsets_)
            putNumber(offset, offsetBytes);
        document_.append(6, '\0');
        putNumber(offsetBytes, 1);
        putNumber(referenceBytes_, 1);
        putNumber(offsets_.size(), 8);
        putNumber(0, 8);
        putNumber(tableStart, 8);
        return std::move(document_);
    }

  private:
    // Returns the new object's index.
    size_t beginObject() {
        offsets_.push_back(document_.size());
        return offsets_.size() - 1;
    }
    size_t writeObject(const PropertyList& value) {
        const size_t index = beginObject();
        std::visit([this](const auto& content) { put(content); }, value.value());
        return index;
    }

    void putNumber(uint64_t value, size_t bytes) {
        for (size_t i = bytes; i-- > 0;)
            document_.push_back(static_cast<char>(value >> (8 * i)));
    }
    void putMarker(uint8_t type, uint64_t length) {
        document_.push_back(static_cast<char>(type << 4 | std::min<uint64_t>(length, 15)));
        if (length >= 15) put(static_cast<int64_t>(length));
    }

    void put(bool value) { document_.push_back(value ? '\x09' : '\x08'); }
    // One, two and four bytes are unsigned, eight signed.
    void put(int64_t value) {
        const size_t bytes = value < 0 ? 8 : bytesFor(static_cast<uint64_t>(value));
        putMarker(1, static_cast<uint64_t>(std::countr_zero(bytes)));
        putNumber(static_cast<uint64_t>(value), bytes);
    }
    void put(uint64_t value) {
        putMarker(1, 4);  // 16 bytes, for values above eight signed ones
        putNumber(0, 8);
        putNumber(value, 8);
    }
    void put(double value) {
        putMarker(2, 3);
        putNumber(std::bit_cast<uint64_t>(value), 8);
    }
    void put(const Date& date) {
        putMarker(3, 3);
        putNumber(std::bit_cast<uint64_t>(date.seconds - kSecondsFrom1970To2001), 8);
    }
    void put(const Data& data) {
        putMarker(4, data.bytes.size());
        document_ += data.bytes;
    }
    void put(const std::string& text) {
        if (std::all_of(text.begin(), text.end(), [](char c) { return static_cast<uint8_t>(c) < 0x80; })) {
            putMarker(5, text.size());
            document_ += text;
            return;
        }
        const std::u16string units = utf16From(text);
        putMarker(6, units.size());
        for (const char16_t unit : units)
            putNumber(unit, 2);
    }
    void put(const Array& array) {
        putMarker(10, array.size());
        size_t at = reserveReferences(array.size());
        for (const PropertyList& item : array)
            at = setReference(at, writeObject(item));
    }
    void put(const Dictionary& dictionary) {
        putMarker(13, dictionary.size());
        size_t at = reserveReferences(2 * dictionary.size());
        for (const auto& entry : dictionary) {
            at = setReference(at, beginObject());
            put(entry.key);
        }
        for (const auto& entry : dictionary)
            at = setReference(at, writeObject(entry.value));
    }

    // Returns the offset of the first reference.
    size_t reserveReferences(size_t count) {
        const size_t at = document_.size();
        document_.append(count * referenceBytes_, '\0');
        return at;
    }
    // Returns the offset of the next reference.
    size_t setReference(size_t at, uint64_t index) {
        for (size_t i = referenceBytes_; i-- > 0;)
            document_[at++] = static_cast<char>(index >> (8 * i));
        return at;
    }

    size_t referenceBytes_;
    std::string document_ = "bplist00";
    std::vector<uint64_t> offsets_;
};

}  // namespace

std::string writeBinaryPropertyList(const PropertyList& value, size_t objects) {
    return BinaryWriter(objects).write(value);
}

}  // namespace telvora
