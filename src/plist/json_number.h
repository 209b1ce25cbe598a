// SPDX-License-Identifier: Apache-2.0
//
// Numbers as JSON (RFC 8259) writes them: the shortest digits that read back as the same value, -1.0 for NaN
// and infinity. Thread-safe: no shared state.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>

#include "plist/property_list.h"

namespace telvora {

// The text of a real number. It keeps a fraction that is zero, so that readers that distinguish integers from
// reals read a real.
class JsonReal {
  public:
    explicit JsonReal(double value);

    const char* data() const { return text_.data(); }
    size_t size() const { return size_; }

  private:
    std::array<char, 32> text_;
    size_t size_;
};

// The text of a boolean, a number or a date; std::nullopt for all other types.
std::optional<std::string> jsonNumberText(const PropertyList& value);

}  // namespace telvora
