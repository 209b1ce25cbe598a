// SPDX-License-Identifier: Apache-2.0
//
// JSON (RFC 8259) as the tools read it. Objects are dictionaries, arrays arrays, and numbers without fraction
// and exponent integers; null has no place in a property list. Thread-safe: no shared state.
#pragma once

#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "plist/property_list.h"

namespace telvora {

// The value that the text is, or what is wrong with it and where. Nothing may nest deeper than 64, no key may
// stand twice in one object.
tl::expected<PropertyList, std::string> parseJson(std::string_view text);

}  // namespace telvora
