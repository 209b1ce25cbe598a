// SPDX-License-Identifier: Apache-2.0
#include "protocol/property_list_codec.h"
#include "util/ascii.h"
#include "util/utf8.h"

namespace telvora {

// --- Plain arguments ---

void ArgumentWriter::string(const std::string& value) {
    if (isAsciiText(value)) return wire_.append(value);
    const std::string_view text(value.c_str());
    if (isValidUtf8(text)) return wire_.append(text);
    wire_.append(replaceInvalidUtf8(text));
}

void ArgumentWriter::strings(const std::vector<std::string>& values) {
    const auto mark = wire_.openArray(alignmentOf('s'));
    for (const std::string& value : values)
        string(value);
    wire_.closeArray(mark);
}

void ArgumentWriter::error(const TelvoraError& value) {
    wire_.beginStructure();
    string(value.domain);
    wire_.append(value.code);
    string(value.description);
}

// --- Property lists ---

void ArgumentWriter::dictionary(const Dictionary& value, int depth) {
    if (depth >= kMaxPropertyListDepth) return void(ok_ = false);
    const auto mark = wire_.openArray(alignmentOf('{'));
    for (const Dictionary::Entry& entry : value) {
        wire_.beginStructure();
        string(entry.key);
        variant(entry.value, depth);
    }
    wire_.closeArray(mark);
}

void ArgumentWriter::array(const Array& value, int depth) {
    if (depth >= kMaxPropertyListDepth) return void(ok_ = false);
    const auto mark = wire_.openArray(alignmentOf('v'));
    for (const PropertyList& element : value)
        variant(element, depth);
    wire_.closeArray(mark);
}

struct ArgumentWriter::VariantWriter {
    ArgumentWriter& out;
    int depth;

    template <typename Number>
    void number(const char* type, Number value) const {
        out.wire_.appendSignature(type);
        out.wire_.append(value);
    }
    void operator()(bool value) const { number("b", value); }
    void operator()(int64_t value) const { number("x", value); }
    void operator()(uint64_t value) const { number("t", value); }
    void operator()(double value) const { number("d", value); }
    void operator()(const std::string& value) const {
        out.wire_.appendSignature("s");
        out.string(value);
    }
    void operator()(const Data& value) const {
        out.wire_.appendSignature("ay");
        out.wire_.appendBytes(value.bytes);
    }
    void operator()(const Date& value) const {
        out.wire_.appendSignature("(d)");
        out.wire_.beginStructure();
        out.wire_.append(value.seconds);
    }
    void operator()(const Array& value) const {
        out.wire_.appendSignature("av");
        out.array(value, depth + 1);
    }
    void operator()(const Dictionary& value) const {
        out.wire_.appendSignature("a{sv}");
        out.dictionary(value, depth + 1);
    }
};

void ArgumentWriter::variant(const PropertyList& value, int depth) {
    std::visit(VariantWriter{*this, depth}, value.value());
}

// --- Sizes ---

namespace {

constexpr size_t kPerValue = 16;  // a signature, padding, and a number or a length

struct WireSize {
    template <typename Number>
    size_t operator()(const Number&) const {
        return kPerValue;
    }
    size_t operator()(const std::string& text) const { return kPerValue + text.size(); }
    size_t operator()(const Data& data) const { return kPerValue + data.bytes.size(); }
    size_t operator()(const Array& array) const {
        size_t size = kPerValue;
        for (const PropertyList& element : array)
            size += std::visit(*this, element.value());
        return size;
    }
    size_t operator()(const Dictionary& dictionary) const {
        size_t size = kPerValue;
        for (const Dictionary::Entry& entry : dictionary)
            size += kPerValue + entry.key.size() + std::visit(*this, entry.value.value());
        return size;
    }
};

}  // namespace

size_t wireSize(const Dictionary& dictionary) {
    return WireSize{}(dictionary);
}

size_t wireSize(const Array& array) {
    return WireSize{}(array);
}

}  // namespace telvora
