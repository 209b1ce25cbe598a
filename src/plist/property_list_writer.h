// SPDX-License-Identifier: Apache-2.0
//
// The writers of the two formats, in time and memory that grow with the value's size alone. Thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <tl/expected.hpp>

#include "plist/property_list.h"

namespace telvora {

// A value that a format can hold: strings and dates have been looked at, and so has the nesting. `objects`:
// how many values there are, keys among them.
std::string writeBinaryPropertyList(const PropertyList& value, size_t objects);

// Fails with a reason on control characters, which XML can't hold.
tl::expected<std::string, std::string> writeXmlPropertyList(const PropertyList& value);

}  // namespace telvora
