// SPDX-License-Identifier: Apache-2.0
//
// PropertyList: the value type of all structured data in the daemon (session info, payloads, bags, user
// defaults). A plain value: copies are deep, equality is by content, const access is safe from any thread.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace telvora {

class PropertyList;

using Array = std::vector<PropertyList>;

// Raw bytes, a type of their own beside text.
struct Data {
    std::string bytes;
    friend bool operator==(const Data&, const Data&) = default;
};

// A point in time, in seconds since 1970-01-01 UTC.
struct Date {
    double seconds = 0;
    friend bool operator==(const Date&, const Date&) = default;
};

// A dictionary with string keys. It is enumerated in the byte order of its keys.
class Dictionary {
  public:
    struct Entry;
    using const_iterator = std::vector<Entry>::const_iterator;

    Dictionary();
    // A later entry of the same key replaces an earlier one.
    Dictionary(std::initializer_list<Entry> entries);
    // The same from entries in any order, in time n log n. For readers of hostile input: one set() per entry
    // is quadratic if the keys arrive in falling order.
    static Dictionary fromEntries(std::vector<Entry> entries);
    Dictionary(const Dictionary&);
    Dictionary(Dictionary&&) noexcept;
    Dictionary& operator=(const Dictionary&);
    Dictionary& operator=(Dictionary&&) noexcept;
    ~Dictionary();

    // The value under `key`, or null. The pointer is valid until the dictionary changes.
    const PropertyList* find(std::string_view key) const;
    PropertyList* find(std::string_view key);
    bool contains(std::string_view key) const { return find(key) != nullptr; }

    // Adds the entry, or replaces its value.
    void set(std::string_view key, PropertyList value);
    // Removes the entry; false if there was no such entry.
    bool erase(std::string_view key);
    // Sets every entry of `other`, whose values win. Takes one pass over both.
    void merge(const Dictionary& other);
    void merge(Dictionary&& other);
    // The result of merging `over` into a copy of `base`, without moving entries about.
    static Dictionary merged(const Dictionary& base, Dictionary&& over);
    // Calls keep(const std::string& key, PropertyList& value) for every entry in key order, and removes the
    // entries for which it returns false. It may change the value.
    template <typename Keep>
    void retain(Keep keep);
    void reserve(size_t entries);

    size_t size() const;
    bool empty() const;
    const_iterator begin() const;
    const_iterator end() const;

    // The value under `key`; null if the key is absent or holds another type.
    const std::string* string(std::string_view key) const;
    const Dictionary* dictionary(std::string_view key) const;
    const Array* array(std::string_view key) const;
    // The value under `key`, read as by the operation of PropertyList; std::nullopt (false) if the key is
    // absent.
    std::optional<int64_t> integer(std::string_view key) const;
    std::optional<int64_t> wrappedInteger(std::string_view key) const;
    std::optional<double> real(std::string_view key) const;
    bool boolean(std::string_view key) const;

    friend bool operator==(const Dictionary&, const Dictionary&);

  private:
    std::vector<Entry>::iterator lowerBound(std::string_view key);
    std::vector<Entry>::const_iterator lowerBound(std::string_view key) const;

    std::vector<Entry> entries_;
};

class PropertyList {
  public:
    // uint64_t only holds values above the range of int64_t.
    using Value = std::variant<bool, int64_t, uint64_t, double, std::string, Data, Date, Array, Dictionary>;

    PropertyList() : value_(false) {}
    PropertyList(bool value) : value_(value) {}
    PropertyList(int value) : value_(int64_t{value}) {}
    PropertyList(unsigned value) : value_(int64_t{value}) {}
    PropertyList(long value) : value_(int64_t{value}) {}
    PropertyList(long long value) : value_(int64_t{value}) {}
    PropertyList(unsigned long value) : value_(fromUnsigned(value)) {}
    PropertyList(unsigned long long value) : value_(fromUnsigned(value)) {}
    PropertyList(double value) : value_(value) {}
    PropertyList(const char* value) : value_(std::string(value)) {}
    PropertyList(std::string_view value) : value_(std::string(value)) {}
    PropertyList(std::string value) : value_(std::move(value)) {}
    PropertyList(Data value) : value_(std::move(value)) {}
    PropertyList(Date value) : value_(value) {}
    PropertyList(Array value) : value_(std::move(value)) {}
    PropertyList(Dictionary value) : value_(std::move(value)) {}

    const Value& value() const { return value_; }
    template <typename T>
    const T* getIf() const {
        return std::get_if<T>(&value_);
    }
    template <typename T>
    bool is() const {
        return std::holds_alternative<T>(value_);
    }
    // Whether it is a boolean, an integer or a real: on the wire a boolean is a number, too.
    bool isNumber() const;

    // A number of any kind as an integer (reals truncated toward zero, out-of-range values clamped), or the
    // leading integer of a string (0 if there is no digit). std::nullopt for all other types.
    std::optional<int64_t> integerValue() const;
    // The same without clamping: the low 64 bits of the integer part of a number, for values of which only
    // the low bits count.
    std::optional<int64_t> wrappedInteger() const;
    // A number of any kind; std::nullopt for all other types.
    std::optional<double> realValue() const;
    // True for true and for numbers other than 0; false for all other values.
    bool boolValue() const;

    // The type and size of the value, without its content: the form for log lines.
    std::string shapeDescription() const;

    friend bool operator==(const PropertyList&, const PropertyList&) = default;

  private:
    static Value fromUnsigned(uint64_t value);

    Value value_;
};

struct Dictionary::Entry {
    std::string key;
    PropertyList value;
    friend bool operator==(const Entry&, const Entry&) = default;
};

template <typename Keep>
void Dictionary::retain(Keep keep) {
    auto kept = entries_.begin();
    for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
        if (!keep(std::as_const(entry->key), entry->value)) continue;
        if (kept != entry) *kept = std::move(*entry);
        ++kept;
    }
    entries_.erase(kept, entries_.end());
}

// The integer at the start of `text` after blanks, with sign; 0 if there is no digit. Clamped to the range of
// int64_t.
int64_t leadingInteger(std::string_view text);

}  // namespace telvora
