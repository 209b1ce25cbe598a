// SPDX-License-Identifier: Apache-2.0
//
// Property lists on the wire, one D-Bus type per kind of value:
//
//     dictionary a{sv}    array av    string s    boolean b    integer y n q i u x t    real d
//     data ay    date (d), seconds since 1970-01-01 UTC
//
// and an optional value as an array of at most one element: aa{sv}, as, aas, a(sis). All other types are
// refused by name. Of entries with the same key the last one wins.
//
// ArgumentReader and ArgumentWriter walk a message's arguments in order. The first failure sticks: after it
// every read returns an empty value and every write has no effect, so a caller checks once, at the end. Both
// borrow the message and belong to its connection's strand. codec.h selects their functions by type.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bus/bus_message.h"
#include "plist/property_list.h"
#include "protocol/telvora_error.h"
#include "util/unique_fd.h"
#include "wire/wire_writer.h"

namespace telvora {

// Maximum nesting of dictionaries and arrays. (D-Bus allows 64 containers; each level takes three of them.)
inline constexpr int kMaxPropertyListDepth = 16;

class ArgumentReader {
  public:
    explicit ArgumentReader(BusMessage& message) : message_(message), wire_(message.reader()) {}

    bool boolean();
    uint16_t u16();
    double real();
    std::string string();
    std::vector<std::string> strings();
    Dictionary dictionary();
    Array array();
    TelvoraError error();
    // The received descriptor, close-on-exec.
    UniqueFd file();
    // An array of at most one element of the D-Bus type `element`, which `read` reads.
    template <typename Read>
    auto optional(std::string_view element, Read read) -> std::optional<decltype(read())> {
        std::optional<decltype(read())> value;
        if (!enter('a', element)) return value;
        if (!wire_.atEnd()) value = read();
        if (ok() && !wire_.atEnd()) fail("More than one element where one value or nothing is expected");
        leave();
        return value;
    }

    bool ok() const { return failure_.empty(); }
    // The first failure, for people; never a value of the message. Empty if all reads succeeded.
    const std::string& failure() const { return failure_; }

  private:
    bool fail(std::string failure);
    // A read of the wire failed.
    bool failRead();
    template <typename T>
    bool read(T& value) {
        return ok() && (wire_.read(value) || failRead());
    }
    // `contents`: the types within the container.
    bool enter(char type, std::string_view contents);
    void leave() {
        if (ok() && !wire_.leave()) failRead();
    }

    void readEntries(Dictionary& dictionary, int depth);
    void readElements(Array& array, int depth);
    PropertyList readVariant(int depth);
    PropertyList readValue(int depth);
    template <typename Wire, typename Value>
    PropertyList readNumber();
    PropertyList readContainer(int depth);
    PropertyList readDate();

    BusMessage& message_;
    WireReader& wire_;
    std::string failure_;
};

class ArgumentWriter {
  public:
    explicit ArgumentWriter(WireWriter& wire) : wire_(wire) {}

    void boolean(bool value) { wire_.append(value); }
    void u16(uint16_t value) { wire_.append(value); }
    void real(double value) { wire_.append(value); }
    // Invalid UTF-8 is replaced with U+FFFD. The text ends at its first NUL, which D-Bus does not carry.
    void string(const std::string& value);
    void strings(const std::vector<std::string>& values);
    void dictionary(const Dictionary& value) { dictionary(value, 0); }
    void array(const Array& value) { array(value, 0); }
    void error(const TelvoraError& value);
    // The next of the descriptors that are sent with the message.
    void file() { wire_.append(files_++); }
    // An array of `value`, which `write` writes as the D-Bus type `element`; empty if `value` is null.
    template <typename Value, typename Write>
    void optional(std::string_view element, const Value* value, Write write) {
        const auto mark = wire_.openArray(alignmentOf(element.front()));
        if (value != nullptr) write(*value);
        wire_.closeArray(mark);
    }

    // False if a value was nested too deep.
    bool ok() const { return ok_; }

  private:
    void dictionary(const Dictionary& value, int depth);
    void array(const Array& value, int depth);
    void variant(const PropertyList& value, int depth);
    struct VariantWriter;

    WireWriter& wire_;
    uint32_t files_ = 0;
    bool ok_ = true;
};

// Approximate size of a value on the wire, in bytes.
size_t wireSize(const Dictionary& dictionary);
size_t wireSize(const Array& array);
inline size_t wireSize(const Dictionary* dictionary) {
    return sizeof(uint64_t) + (dictionary != nullptr ? wireSize(*dictionary) : 0);
}
inline size_t wireSize(const std::string& text) {
    return sizeof(uint64_t) + text.size();
}
// Of all other arguments, which are small.
template <typename T>
size_t wireSize(const T&) {
    return sizeof(uint64_t);
}

}  // namespace telvora
