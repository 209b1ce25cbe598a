// SPDX-License-Identifier: Apache-2.0
#include "platform/property_list_format.h"

#include <plist/plist.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <stdexcept>

#include "platform/property_list_guard.h"
#include "util/utf8.h"

namespace telvora {

namespace {

struct FreePlist {
    void operator()(void* node) const { plist_free(node); }
};
using Plist = std::unique_ptr<void, FreePlist>;

struct FreeMemory {
    void operator()(void* memory) const { std::free(memory); }
};
using Text = std::unique_ptr<char, FreeMemory>;

// A value that one side has and the other has not. Stays inside this file.
struct Unsupported : std::runtime_error {
    using std::runtime_error::runtime_error;
};

constexpr double kSecondsFrom1970To2001 = 978307200;  // the format counts dates from 2001-01-01 UTC
constexpr double kFirstSecondOfYear1 = -62135596800;
constexpr double kFirstSecondOfYear10000 = 253402300800;

double checkedDate(double seconds) {
    if (!(seconds >= kFirstSecondOfYear1 && seconds < kFirstSecondOfYear10000)) {
        throw Unsupported("a date outside the years 1 to 9999");
    }
    return seconds;
}

std::string checkedText(std::string_view text) {
    if (text.find('\0') != std::string_view::npos) throw Unsupported("a string with a zero byte");
    if (!isValidUtf8(text)) throw Unsupported("a string that is not UTF-8");
    return std::string(text);
}

// libplist's own accessors pass dates as 32-bit seconds, which end in 2069 (and dates far ahead, meaning
// "never", are common). A binary document of one date has the whole double:
constexpr std::string_view kDateBefore{"bplist00\x33", 9};
constexpr std::string_view kDateAfter{
    "\x08"                                // the offset table: one object, at 8
    "\0\0\0\0\0\0\x01\x01"                // offset and reference size
    "\0\0\0\0\0\0\0\x01\0\0\0\0\0\0\0\0"  // number of objects, index of the top one
    "\0\0\0\0\0\0\0\x11",
    33};  // where the table begins

double dateSeconds(plist_t node) {
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(node, &bytes, &length);
    const Text document(bytes);
    if (document == nullptr || length != kDateBefore.size() + 8 + kDateAfter.size()) {
        throw Unsupported("a malformed date");
    }
    uint64_t bits = 0;
    for (size_t i = 0; i < 8; ++i)
        bits = bits << 8 | static_cast<uint8_t>(bytes[kDateBefore.size() + i]);
    return checkedDate(std::bit_cast<double>(bits) + kSecondsFrom1970To2001);
}

plist_t newDate(double seconds) {
    const auto bits = std::bit_cast<uint64_t>(checkedDate(seconds) - kSecondsFrom1970To2001);
    std::string document(kDateBefore);
    for (int shift = 56; shift >= 0; shift -= 8)
        document.push_back(static_cast<char>(bits >> shift));
    document += kDateAfter;
    plist_t node = nullptr;
    plist_from_bin(document.data(), static_cast<uint32_t>(document.size()), &node);
    return node;
}

// libplist keeps whether an integer is signed, but tells it only by comparing: what plist_new_uint makes is
// signed, however large.
PropertyList integerFrom(plist_t node) {
    uint64_t bits = 0;
    plist_get_uint_val(node, &bits);
    const Plist asSigned(plist_new_uint(bits));
    if (bits <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) ||
        plist_compare_node_value(node, asSigned.get())) {
        return static_cast<int64_t>(bits);
    }
    return bits;
}

plist_t newUnsigned(uint64_t value) {
    const std::string document = "<plist><integer>" + std::to_string(value) + "</integer></plist>";
    plist_t node = nullptr;
    plist_from_xml(document.data(), static_cast<uint32_t>(document.size()), &node);
    return node;
}

PropertyList valueFrom(plist_t node);

// Depth is bounded by the checks that a document passed before libplist made nodes of it.
PropertyList arrayFrom(plist_t node) {
    Array array;
    array.reserve(plist_array_get_size(node));
    plist_array_iter position = nullptr;
    plist_array_new_iter(node, &position);
    const std::unique_ptr<void, FreeMemory> owned(position);
    plist_t item = nullptr;
    for (plist_array_next_item(node, position, &item); item != nullptr;
         plist_array_next_item(node, position, &item)) {
        array.push_back(valueFrom(item));
    }
    return array;
}

PropertyList dictionaryFrom(plist_t node) {
    Dictionary dictionary;
    dictionary.reserve(plist_dict_get_size(node));
    plist_dict_iter position = nullptr;
    plist_dict_new_iter(node, &position);
    const std::unique_ptr<void, FreeMemory> owned(position);
    while (true) {
        char* keyText = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, position, &keyText, &item);
        const Text key(keyText);
        if (item == nullptr) return dictionary;
        dictionary.set(checkedText(key ? key.get() : ""), valueFrom(item));
    }
}

PropertyList valueFrom(plist_t node) {
    uint64_t length = 0;
    switch (plist_get_node_type(node)) {
        case PLIST_BOOLEAN: {
            uint8_t value = 0;
            plist_get_bool_val(node, &value);
            return value != 0;
        }
        case PLIST_UINT:
            return integerFrom(node);
        case PLIST_REAL: {
            double value = 0;
            plist_get_real_val(node, &value);
            return value;
        }
        case PLIST_STRING: {
            const char* text = plist_get_string_ptr(node, &length);
            return text ? checkedText({text, length}) : std::string();
        }
        case PLIST_DATA: {
            const char* bytes = plist_get_data_ptr(node, &length);
            return Data{bytes ? std::string(bytes, length) : std::string()};
        }
        case PLIST_DATE:
            return Date{dateSeconds(node)};
        case PLIST_ARRAY:
            return arrayFrom(node);
        case PLIST_DICT:
            return dictionaryFrom(node);
        default:
            throw Unsupported("a value of unsupported type");
    }
}

// Makes libplist's nodes of a value.
class NodeMaker {
  public:
    explicit NodeMaker(PropertyListFormat format) : format_(format) {}

    Plist make(const PropertyList& value) {
        Plist node(std::visit([this](const auto& v) { return newNode(v); }, value.value()));
        if (!node) throw Unsupported("out of memory");
        return node;
    }

  private:
    plist_t newNode(bool value) { return plist_new_bool(value); }
    plist_t newNode(int64_t value) { return plist_new_uint(static_cast<uint64_t>(value)); }
    plist_t newNode(uint64_t value) { return newUnsigned(value); }
    plist_t newNode(double value) { return plist_new_real(value); }
    plist_t newNode(const std::string& value) { return plist_new_string(text(value).c_str()); }
    plist_t newNode(const Data& value) { return plist_new_data(value.bytes.data(), value.bytes.size()); }
    plist_t newNode(const Date& value) { return newDate(value.seconds); }

    plist_t newNode(const Array& array) {
        Plist node(plist_new_array());
        enter();
        for (const PropertyList& item : array)
            plist_array_append_item(node.get(), make(item).release());
        --depth_;
        return node.release();
    }

    plist_t newNode(const Dictionary& dictionary) {
        Plist node(plist_new_dict());
        enter();
        for (const auto& [key, value] : dictionary) {
            const std::string keyText = text(key);
            plist_dict_set_item(node.get(), keyText.c_str(), make(value).release());
        }
        --depth_;
        return node.release();
    }

    void enter() {
        if (++depth_ > kMaxPropertyListDepth) throw Unsupported("nested too deeply");
    }

    std::string text(const std::string& value) const {
        const auto control = [](char c) { return c >= 0 && c < ' ' && c != '\t' && c != '\n' && c != '\r'; };
        if (format_ == PropertyListFormat::xml && std::any_of(value.begin(), value.end(), control)) {
            throw Unsupported("a control character, which XML can't hold");
        }
        return checkedText(value);
    }

    PropertyListFormat format_;
    size_t depth_ = 0;
};

}  // namespace

tl::expected<PropertyList, std::string> parsePropertyList(std::string_view document) {
    if (document.size() > kMaxPropertyListBytes) return tl::make_unexpected("longer than 16 MiB");
    const bool binary = document.starts_with("bplist00");
    const auto checked = binary ? checkBinaryPropertyList(document) : checkXmlPropertyList(document);
    if (!checked) return tl::make_unexpected(checked.error());

    plist_t top = nullptr;
    const auto parse = binary ? plist_from_bin : plist_from_xml;
    parse(document.data(), static_cast<uint32_t>(document.size()), &top);
    const Plist owned(top);
    if (!owned) return tl::make_unexpected("malformed property list");
    try {
        return valueFrom(top);
    } catch (const Unsupported& reason) {
        return tl::make_unexpected(reason.what());
    }
}

tl::expected<PropertyList, std::string> readPropertyListFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return tl::make_unexpected("can't be opened");
    std::string document;
    char block[1 << 14];
    while (document.size() <= kMaxPropertyListBytes && (file.read(block, sizeof block), file.gcount() > 0))
        document.append(block, static_cast<size_t>(file.gcount()));
    if (file.bad()) return tl::make_unexpected("can't be read");
    return parsePropertyList(document);
}

tl::expected<std::string, std::string> serializePropertyList(const PropertyList& value,
                                                             PropertyListFormat format) {
    try {
        const Plist node = NodeMaker(format).make(value);
        char* bytes = nullptr;
        uint32_t length = 0;
        const auto write = format == PropertyListFormat::xml ? plist_to_xml : plist_to_bin;
        write(node.get(), &bytes, &length);
        const Text document(bytes);
        if (!document) return tl::make_unexpected("can't be written");
        return std::string(bytes, length);
    } catch (const Unsupported& reason) {
        return tl::make_unexpected(reason.what());
    }
}

}  // namespace telvora
