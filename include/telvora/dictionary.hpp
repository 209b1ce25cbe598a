// SPDX-License-Identifier: Apache-2.0
//
// Dictionaries and arrays to fill, from initializer lists too.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "telvora/value.hpp"

namespace telvora {
inline namespace v1 {

// Content of an entry or element: a boolean, a number, text, bytes, a time, or another value. Refers to bytes
// and values, which must outlive it.
class Input {
  public:
    Input(bool value) : content_(value) {}
    template <typename T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool>) Input(T value)
        : content_(static_cast<int64_t>(value)) {}
    Input(double value) : content_(value) {}
    Input(const char* value) : content_(std::string(value)) {}
    Input(std::string_view value) : content_(std::string(value)) {}
    Input(std::string value) : content_(std::move(value)) {}
    template <typename Bytes>
    requires std::is_convertible_v<const Bytes&, std::span<const std::byte>> Input(const Bytes& value)
        : content_(std::span<const std::byte>(value)) {}
    Input(Time value) : content_(value) {}
    Input(std::chrono::system_clock::time_point value) : content_(Time(value)) {}
    Input(View value) : content_(value) {}
    Input(const Value& value) : content_(value.view()) {}

    // Sets the entry `key` of a dictionary, or appends to an array if `key` is null.
    void putInto(telvora_value* container, const char* key) const {
        const Status status =
            std::visit([=](const auto& value) { return put(container, key, value); }, content_);
        if (status == TELVORA_ERROR_RESOURCES) throw std::bad_alloc();
    }

  private:
    static Status put(telvora_value* c, const char* k, bool v) { return telvora_set_bool(c, k, v); }
    static Status put(telvora_value* c, const char* k, int64_t v) { return telvora_set_int(c, k, v); }
    static Status put(telvora_value* c, const char* k, double v) { return telvora_set_double(c, k, v); }
    static Status put(telvora_value* c, const char* k, const std::string& v) {
        return telvora_set_string(c, k, v.c_str());
    }
    static Status put(telvora_value* c, const char* k, std::span<const std::byte> v) {
        return telvora_set_data(c, k, v.data(), v.size());
    }
    static Status put(telvora_value* c, const char* k, Time v) {
        return telvora_set_date(c, k, v.time_since_epoch().count());
    }
    static Status put(telvora_value* c, const char* k, View v) { return telvora_set_value(c, k, v.get()); }

    std::variant<bool, int64_t, double, std::string, std::span<const std::byte>, Time, View> content_;
};

// A dictionary to fill. It is empty until the first set(); operations pass NULL then.
class Dictionary : public Value {
  public:
    Dictionary() = default;
    Dictionary(std::initializer_list<std::pair<std::string, Input>> entries) {
        for (const auto& [key, value] : entries)
            set(key, value);
    }
    // Takes ownership of a dictionary that a function of telvora.h has made; may be null.
    static Dictionary adopt(telvora_value* value) {
        Dictionary owner;
        static_cast<Value&>(owner) = Value::adopt(value);
        return owner;
    }
    Dictionary& set(const std::string& key, const Input& value) {
        value.putInto(mutableValue(telvora_dictionary_new), key.c_str());
        return *this;
    }
};

class Array : public Value {
  public:
    Array() { mutableValue(telvora_array_new); }
    Array(std::initializer_list<Input> elements) : Array() {
        for (const Input& element : elements)
            append(element);
    }
    Array& append(const Input& element) {
        element.putInto(mutableValue(telvora_array_new), nullptr);
        return *this;
    }
};

// A copy of a session info for a session one level below in the same hierarchy. Empty if the session info has
// no hierarchy token.
inline Dictionary childInfo(View sessionInfo, uint32_t sessionID) {
    return Dictionary::adopt(telvora_child_info(sessionInfo.get(), sessionID));
}

}  // namespace v1
}  // namespace telvora
