// SPDX-License-Identifier: Apache-2.0
#include <cerrno>

#include "protocol/property_list_codec.h"
#include "util/utf8.h"

namespace telvora {

// --- Plain arguments ---

void ArgumentWriter::boolean(bool value) {
    const int wire = value ? 1 : 0;
    append('b', &wire);
}

void ArgumentWriter::u16(uint16_t value) {
    append('q', &value);
}

void ArgumentWriter::real(double value) {
    append('d', &value);
}

void ArgumentWriter::string(const std::string& value) {
    if (result_ < 0) return;
    int result = message_.appendString(value);
    if (result == -EINVAL) result = message_.appendString(replaceInvalidUtf8(value));
    check(result);
}

void ArgumentWriter::strings(const std::vector<std::string>& values) {
    open('a', "s");
    for (const std::string& value : values)
        string(value);
    close();
}

void ArgumentWriter::file(int fd) {
    append('h', &fd);
}

void ArgumentWriter::error(const TelvoraError& value) {
    open('r', "sis");
    string(value.domain);
    append('i', &value.code);
    string(value.description);
    close();
}

// --- Property lists ---

void ArgumentWriter::dictionary(const Dictionary& value, int depth) {
    if (depth >= kMaxPropertyListDepth) return check(-ELOOP);
    open('a', "{sv}");
    for (const Dictionary::Entry& entry : value) {
        open('e', "sv");
        string(entry.key);
        variant(entry.value, depth);
        close();
    }
    close();
}

void ArgumentWriter::array(const Array& value, int depth) {
    if (depth >= kMaxPropertyListDepth) return check(-ELOOP);
    open('a', "v");
    for (const PropertyList& element : value)
        variant(element, depth);
    close();
}

struct ArgumentWriter::VariantWriter {
    ArgumentWriter& out;
    int depth;

    template <typename Write>
    void inside(const char* type, Write write) const {
        out.open('v', type);
        write();
        out.close();
    }
    void operator()(bool value) const {
        inside("b", [&] { out.boolean(value); });
    }
    void operator()(int64_t value) const {
        inside("x", [&] { out.append('x', &value); });
    }
    void operator()(uint64_t value) const {
        inside("t", [&] { out.append('t', &value); });
    }
    void operator()(double value) const {
        inside("d", [&] { out.real(value); });
    }
    void operator()(const std::string& value) const {
        inside("s", [&] { out.string(value); });
    }
    void operator()(const Data& value) const {
        inside("ay", [&] {
            if (out.result_ >= 0) out.check(out.message_.appendBytes(value.bytes));
        });
    }
    void operator()(const Date& value) const {
        inside("(d)", [&] {
            out.open('r', "d");
            out.real(value.seconds);
            out.close();
        });
    }
    void operator()(const Array& value) const {
        inside("av", [&] { out.array(value, depth + 1); });
    }
    void operator()(const Dictionary& value) const {
        inside("a{sv}", [&] { out.dictionary(value, depth + 1); });
    }
};

void ArgumentWriter::variant(const PropertyList& value, int depth) {
    if (result_ >= 0) std::visit(VariantWriter{*this, depth}, value.value());
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

}  // namespace telvora
