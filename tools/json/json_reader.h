// SPDX-License-Identifier: Apache-2.0
//
// JSON (RFC 8259) for the tools. An object becomes a dictionary, and a number without fraction and exponent
// an integer. null is an error: a property list has no such value. Thread-safe: no shared state.
#pragma once

#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "plist/property_list.h"

namespace telvora {

// The value of the text, or a description of the error with its position. Nesting deeper than 64 and repeated
// keys in one object are errors.
tl::expected<PropertyList, std::string> parseJson(std::string_view text);

}  // namespace telvora
