// SPDX-License-Identifier: Apache-2.0
//
// Values of telvora.h: a reference, and an owner.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "telvora/telvora.h"

namespace telvora {
inline namespace v1 {

using Status = telvora_status;
using Time = std::chrono::sys_time<std::chrono::duration<double>>;  // since 1970-01-01 UTC

// A reference to a value, or empty. Valid as long as the object that it was read from exists and is not
// changed.
class View {
  public:
    View() = default;
    View(const telvora_value* value) : value_(value) {}

    const telvora_value* get() const { return value_; }
    explicit operator bool() const { return value_ != nullptr; }
    // Must not be empty.
    telvora_type type() const { return telvora_value_type(value_); }
    bool is(telvora_type type) const { return value_ != nullptr && this->type() == type; }

    // Number of entries, elements or bytes.
    size_t size() const { return telvora_value_count(value_); }
    // The value under a key, or at an index; empty if it does not exist.
    View operator[](const char* key) const { return telvora_value_find(value_, key); }
    View operator[](const std::string& key) const { return (*this)[key.c_str()]; }
    View at(size_t index) const { return telvora_value_at(value_, index); }
    std::string_view keyAt(size_t index) const {
        const char* key = telvora_value_key_at(value_, index);
        return key != nullptr ? key : "";
    }

    // Conversions of telvora.h. False, 0, `std::nullopt` or an empty span for other types, and if empty.
    bool boolean() const { return telvora_value_bool(value_); }
    int64_t integer() const { return telvora_value_int(value_); }
    double real() const { return telvora_value_double(value_); }
    Time time() const { return Time(std::chrono::duration<double>(real())); }
    std::optional<std::string_view> string() const {
        const char* text = telvora_value_string(value_);
        if (text == nullptr) return std::nullopt;
        return std::string_view(text, size());
    }
    std::span<const std::byte> data() const {
        size_t size = 0;
        const void* bytes = telvora_value_data(value_, &size);
        return {static_cast<const std::byte*>(bytes), size};
    }

  private:
    const telvora_value* value_ = nullptr;
};

// Owns a value, or is empty. Copies are deep.
class Value {
  public:
    Value() = default;
    explicit Value(View value) : value_(copied(value)) {}
    Value(const Value& other) : value_(copied(other)) {}
    Value(Value&&) noexcept = default;
    Value& operator=(const Value& other) {
        if (this != &other) value_.reset(copied(other));
        return *this;
    }
    Value& operator=(Value&&) noexcept = default;

    // Takes ownership of a value that a function of telvora.h has made; may be null.
    static Value adopt(telvora_value* value) {
        Value owner;
        owner.value_.reset(value);
        return owner;
    }

    View view() const { return value_.get(); }
    operator View() const { return view(); }
    const telvora_value* get() const { return value_.get(); }

  protected:
    // The value, which `make` makes if this is empty.
    telvora_value* mutableValue(telvora_value* (*make)()) {
        if (!value_) value_.reset(checked(make()));
        return value_.get();
    }

  private:
    struct Free {
        void operator()(telvora_value* value) const { telvora_value_free(value); }
    };
    static telvora_value* checked(telvora_value* value) {
        if (value == nullptr) throw std::bad_alloc();
        return value;
    }
    static telvora_value* copied(View value) {
        return value ? checked(telvora_value_copy(value.get())) : nullptr;
    }

    std::unique_ptr<telvora_value, Free> value_;
};

}  // namespace v1
}  // namespace telvora
