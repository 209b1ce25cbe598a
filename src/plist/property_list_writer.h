// SPDX-License-Identifier: Apache-2.0
//
// The writers of the two formats, in time and memory proportional to the size of the value. Thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <tl/expected.hpp>

#include "plist/property_list.h"

namespace telvora {

// Writes a value whose strings, dates and nesting have been checked. `objects`: the number of its values,
// keys included.
std::string writeBinaryPropertyList(const PropertyList& value, size_t objects);

// Writes a value that has been checked likewise. Fails with a reason on control characters, which XML
// excludes.
tl::expected<std::string, std::string> writeXmlPropertyList(const PropertyList& value);

}  // namespace telvora
