// SPDX-License-Identifier: Apache-2.0
//
// Every report passes through here, so values are read straight to their place, and text is formatted only
// for a failure.
#include <algorithm>

#include "protocol/property_list_codec.h"

namespace telvora {

namespace {

// Room for the entries of a typical payload is made at once.
constexpr size_t kTypicalEntryBytes = 32;
constexpr size_t kMaxReservedEntries = 16;

}  // namespace

bool ArgumentReader::fail(std::string failure) {
    if (failure_.empty()) failure_ = std::move(failure);
    return false;
}

bool ArgumentReader::failRead() {
    return fail(wire_.violation() != nullptr ? "Malformed argument" : "Missing argument");
}

bool ArgumentReader::enter(char type, std::string_view contents) {
    if (!ok()) return false;
    if (wire_.type() != type || !wire_.enter()) return failRead();
    return wire_.types().substr(0, contents.size()) == contents || fail("Malformed argument");
}

// --- Plain arguments ---

bool ArgumentReader::boolean() {
    bool value = false;
    read(value);
    return value;
}

uint16_t ArgumentReader::u16() {
    uint16_t value = 0;
    read(value);
    return value;
}

double ArgumentReader::real() {
    double value = 0;
    read(value);
    return value;
}

std::string ArgumentReader::string() {
    std::string_view value;
    return read(value) ? std::string(value) : std::string();
}

std::vector<std::string> ArgumentReader::strings() {
    std::vector<std::string> values;
    if (!enter('a', "s")) return values;
    while (ok() && !wire_.atEnd())
        values.push_back(string());
    leave();
    return values;
}

UniqueFd ArgumentReader::file() {
    uint32_t index = 0;
    if (!ok() || (!wire_.readDescriptor(index) && !failRead())) return {};
    return message_.takeDescriptor(index);
}

TelvoraError ArgumentReader::error() {
    TelvoraError error;
    if (!enter('(', "sis")) return error;
    error.domain = string();
    read(error.code);
    error.description = string();
    leave();
    return error;
}

// --- Property lists ---

Dictionary ArgumentReader::dictionary() {
    Dictionary value;
    readEntries(value, 1);
    return value;
}

Array ArgumentReader::array() {
    Array value;
    readElements(value, 1);
    return value;
}

void ArgumentReader::readEntries(Dictionary& dictionary, int depth) {
    if (depth > kMaxPropertyListDepth) return void(fail("The property list is nested too deep"));
    if (!enter('a', "{sv}")) return;
    std::vector<Dictionary::Entry> entries;
    entries.reserve(std::min(wire_.remaining() / kTypicalEntryBytes, kMaxReservedEntries));
    while (ok() && !wire_.atEnd()) {
        std::string_view key;
        if (!wire_.enter() || !wire_.read(key)) return void(failRead());
        entries.push_back({std::string(key), readVariant(depth)});
        leave();
        if (!ok()) return;
    }
    leave();
    dictionary = Dictionary::fromEntries(std::move(entries));
}

void ArgumentReader::readElements(Array& array, int depth) {
    if (depth > kMaxPropertyListDepth) return void(fail("The property list is nested too deep"));
    if (!enter('a', "v")) return;
    while (ok() && !wire_.atEnd())
        array.push_back(readVariant(depth));
    leave();
}

PropertyList ArgumentReader::readVariant(int depth) {
    if (!enter('v', "")) return {};
    PropertyList value = readValue(depth);
    leave();
    return value;
}

template <typename Wire, typename Value>
PropertyList ArgumentReader::readNumber() {
    Wire value{};
    read(value);
    return PropertyList(static_cast<Value>(value));
}

PropertyList ArgumentReader::readValue(int depth) {
    switch (wire_.type()) {
        case 's': {
            std::string_view value;
            return read(value) ? PropertyList(value) : PropertyList();
        }
        case 'b':
            return readNumber<bool, bool>();
        case 'y':
            return readNumber<uint8_t, unsigned>();
        case 'n':
            return readNumber<int16_t, int>();
        case 'q':
            return readNumber<uint16_t, unsigned>();
        case 'i':
            return readNumber<int32_t, int>();
        case 'u':
            return readNumber<uint32_t, unsigned>();
        case 'x':
            return readNumber<int64_t, long>();
        case 't':
            return readNumber<uint64_t, unsigned long>();
        case 'd':
            return readNumber<double, double>();
        default:
            return readContainer(depth);
    }
}

PropertyList ArgumentReader::readContainer(int depth) {
    const std::string_view type = wire_.types();
    if (type == "a{sv}") {
        Dictionary value;
        readEntries(value, depth + 1);
        return value;
    }
    if (type == "av") {
        Array value;
        readElements(value, depth + 1);
        return value;
    }
    if (type == "ay") {
        std::string_view bytes;
        if (!wire_.readBytes(bytes)) failRead();
        return Data{std::string(bytes)};
    }
    if (type == "(d)") return readDate();
    fail("A value of type '" + std::string(type) + "' has no place in a property list");
    return {};
}

PropertyList ArgumentReader::readDate() {
    Date date;
    if (enter('(', "d")) read(date.seconds);
    leave();
    return date;
}

}  // namespace telvora
