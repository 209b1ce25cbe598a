// SPDX-License-Identifier: Apache-2.0
//
// Numbers as JSON (RFC 8259) writes them: the shortest digits that read back as the same value, -1.0 for NaN
// and infinity. Thread-safe: no shared state.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "plist/property_list.h"

namespace telvora {

// The text of a real number. It keeps a fraction that is zero, so that readers that distinguish integers from
// reals read a real.
class JsonReal {
  public:
    JsonReal() = default;  // of 0
    explicit JsonReal(double value);

    const char* data() const { return text_.data(); }
    size_t size() const { return size_; }

  private:
    std::array<char, 32> text_{'0', '.', '0'};
    size_t size_ = 3;
};

// The texts of the last reals of one writer: an event has its time twice, and the events of a batch have
// reals in common. Not thread-safe.
class RecentReals {
  public:
    // Valid until the next call.
    const JsonReal& textOf(double value) {
        const auto bits = std::bit_cast<uint64_t>(value);
        Entry& entry = entries_[bits * 0x9e3779b97f4a7c15 >> 60];
        if (entry.bits != bits) entry = {bits, JsonReal(value)};
        return entry.text;
    }

  private:
    struct Entry {
        uint64_t bits = 0;
        JsonReal text;
    };
    std::array<Entry, 16> entries_;
};

// The text of a boolean, a number or a date; std::nullopt for all other types.
std::optional<std::string> jsonNumberText(const PropertyList& value);

}  // namespace telvora
