// SPDX-License-Identifier: Apache-2.0
//
// Every report passes through here, so values are read straight to their place, and text is formatted only
// for a failure.
#include <fcntl.h>

#include <cstring>

#include "protocol/property_list_codec.h"
#include "util/error_text.h"

namespace telvora {

bool ArgumentReader::fail(std::string failure) {
    if (failure_.empty()) failure_ = std::move(failure);
    return false;
}

bool ArgumentReader::check(int result) {
    return result > 0 || fail(result < 0 ? "Malformed argument" : "Missing argument");
}

// --- Plain arguments ---

bool ArgumentReader::boolean() {
    int value = 0;  // D-Bus carries a boolean in 32 bits
    read('b', &value);
    return value != 0;
}

uint16_t ArgumentReader::u16() {
    uint16_t value = 0;
    read('q', &value);
    return value;
}

double ArgumentReader::real() {
    double value = 0;
    read('d', &value);
    return value;
}

std::string ArgumentReader::string() {
    const char* value = nullptr;
    return read('s', &value) ? std::string(value) : std::string();
}

std::vector<std::string> ArgumentReader::strings() {
    std::vector<std::string> values;
    if (!enter('a', "s")) return values;
    while (ok() && !message_.atEnd())
        values.push_back(string());
    if (ok()) exit();
    return values;
}

UniqueFd ArgumentReader::file() {
    int borrowed = -1;
    if (!read('h', &borrowed)) return {};
    UniqueFd own(fcntl(borrowed, F_DUPFD_CLOEXEC, 3));
    if (!own) fail(errorText("No descriptor left", errno));
    return own;
}

TelvoraError ArgumentReader::error() {
    TelvoraError error;
    if (!enter('r', "sis")) return error;
    error.domain = string();
    read('i', &error.code);
    error.description = string();
    if (ok()) exit();
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
    for (;;) {
        const int entered = message_.enter('e', "sv");
        if (entered == 0) break;
        if (!check(entered)) return;
        const char* key = nullptr;
        if (!read('s', &key)) return;
        PropertyList value = readVariant(depth);
        if (!ok() || !exit()) return;
        entries.push_back({key, std::move(value)});
    }
    dictionary = Dictionary::fromEntries(std::move(entries));
    exit();
}

void ArgumentReader::readElements(Array& array, int depth) {
    if (depth > kMaxPropertyListDepth) return void(fail("The property list is nested too deep"));
    if (!enter('a', "v")) return;
    while (!message_.atEnd()) {
        array.push_back(readVariant(depth));
        if (!ok()) return;
    }
    exit();
}

PropertyList ArgumentReader::readVariant(int depth) {
    char type = 0;
    const char* contents = nullptr;
    if (!check(message_.peekType(type, contents)) || !enter('v', contents)) return {};
    PropertyList value = readValue(contents[0], contents, depth);
    if (ok()) exit();
    return value;
}

template <typename Wire, typename Value>
PropertyList ArgumentReader::readNumber(char type) {
    Wire value{};
    read(type, &value);
    return PropertyList(static_cast<Value>(value));
}

PropertyList ArgumentReader::readValue(char type, const char* contents, int depth) {
    switch (type) {
        case 's': {
            const char* value = nullptr;
            return read('s', &value) ? PropertyList(value) : PropertyList();
        }
        case 'b':
            return readNumber<int, bool>('b');
        case 'y':
            return readNumber<uint8_t, unsigned>('y');
        case 'n':
            return readNumber<int16_t, int>('n');
        case 'q':
            return readNumber<uint16_t, unsigned>('q');
        case 'i':
            return readNumber<int32_t, int>('i');
        case 'u':
            return readNumber<uint32_t, unsigned>('u');
        case 'x':
            return readNumber<int64_t, long>('x');
        case 't':
            return readNumber<uint64_t, unsigned long>('t');
        case 'd':
            return readNumber<double, double>('d');
        default:
            return readContainer(contents, depth);
    }
}

PropertyList ArgumentReader::readContainer(const char* contents, int depth) {
    if (std::strcmp(contents, "a{sv}") == 0) {
        Dictionary value;
        readEntries(value, depth + 1);
        return value;
    }
    if (std::strcmp(contents, "av") == 0) {
        Array value;
        readElements(value, depth + 1);
        return value;
    }
    if (std::strcmp(contents, "ay") == 0) {
        std::string_view bytes;
        if (const int result = message_.readBytes(bytes); result < 0) check(result);
        return Data{std::string(bytes)};
    }
    if (std::strcmp(contents, "(d)") == 0) return readDate();
    fail(std::string("A value of type '") + contents + "' has no place in a property list");
    return {};
}

PropertyList ArgumentReader::readDate() {
    Date date;
    if (enter('r', "d") && read('d', &date.seconds)) exit();
    return date;
}

}  // namespace telvora
