// SPDX-License-Identifier: Apache-2.0
#include "platform/property_list_format.h"

#include <plist/plist.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <stdexcept>

#include "platform/property_list_guard.h"
#include "platform/property_list_limits.h"
#include "platform/property_list_writer.h"

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

std::string checkedText(std::string_view text) {
    if (const char* reason = whyNoText(text)) throw Unsupported(reason);
    return std::string(text);
}

// libplist's own accessor passes dates as 32-bit seconds, which end in 2069 (and dates far ahead, meaning
// "never", are common). In a binary document of the date alone all of it stands behind header and marker.
double dateSeconds(plist_t node) {
    constexpr size_t kStart = 9;
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_bin(node, &bytes, &length);
    const Text document(bytes);
    if (document == nullptr || length < kStart + 8) throw Unsupported("a malformed date");
    uint64_t bits = 0;
    for (size_t i = kStart; i < kStart + 8; ++i)
        bits = bits << 8 | static_cast<uint8_t>(bytes[i]);
    const double seconds = std::bit_cast<double>(bits) + kSecondsFrom1970To2001;
    if (!isDate(seconds)) throw Unsupported(kWhyNoDate);
    return seconds;
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
    std::vector<Dictionary::Entry> entries;
    entries.reserve(plist_dict_get_size(node));
    plist_dict_iter position = nullptr;
    plist_dict_new_iter(node, &position);
    const std::unique_ptr<void, FreeMemory> owned(position);
    while (true) {
        char* keyText = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, position, &keyText, &item);
        const Text key(keyText);
        if (item == nullptr) return Dictionary::fromEntries(std::move(entries));
        std::string text = checkedText(key ? key.get() : "");
        entries.push_back({std::move(text), valueFrom(item)});
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

bool hasControlCharacters(const PropertyList& value) {
    const auto inText = [](const std::string& text) {
        return std::any_of(text.begin(), text.end(), [](char c) {
            return static_cast<uint8_t>(c) < ' ' && c != '\t' && c != '\n' && c != '\r';
        });
    };
    if (const auto* text = value.getIf<std::string>()) return inText(*text);
    if (const auto* array = value.getIf<Array>()) {
        return std::any_of(array->begin(), array->end(), hasControlCharacters);
    }
    const auto* dictionary = value.getIf<Dictionary>();
    return dictionary != nullptr &&
           std::any_of(dictionary->begin(), dictionary->end(), [&](const Dictionary::Entry& entry) {
               return inText(entry.key) || hasControlCharacters(entry.value);
           });
}

// libplist makes its nodes of a binary document without the hashing that its other ways to make them cost.
Plist nodesFromBinary(std::string_view document) {
    plist_t top = nullptr;
    plist_from_bin(document.data(), static_cast<uint32_t>(document.size()), &top);
    return Plist(top);
}

Plist nodesFromXml(std::string_view document) {
    plist_t top = nullptr;
    plist_from_xml(document.data(), static_cast<uint32_t>(document.size()), &top);
    return Plist(top);
}

}  // namespace

tl::expected<PropertyList, std::string> parsePropertyList(std::string_view document) {
    if (document.size() > kMaxPropertyListBytes) return tl::make_unexpected("longer than 16 MiB");
    const bool binary = document.starts_with("bplist00");
    const auto checked = binary ? checkBinaryPropertyList(document) : checkXmlPropertyList(document);
    if (!checked) return tl::make_unexpected(checked.error());

    const Plist nodes = binary ? nodesFromBinary(document) : nodesFromXml(document);
    if (!nodes) return tl::make_unexpected("malformed property list");
    try {
        return valueFrom(nodes.get());
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
    auto binary = writeBinaryPropertyList(value);
    if (!binary || format == PropertyListFormat::binary) return binary;
    if (hasControlCharacters(value)) {
        return tl::make_unexpected("a string with control characters, which XML can't hold");
    }
    const Plist nodes = nodesFromBinary(*binary);
    char* bytes = nullptr;
    uint32_t length = 0;
    plist_to_xml(nodes.get(), &bytes, &length);
    const Text document(bytes);
    if (!document) return tl::make_unexpected("can't be written");
    return std::string(bytes, length);
}

}  // namespace telvora
