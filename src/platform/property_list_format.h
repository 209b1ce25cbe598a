// SPDX-License-Identifier: Apache-2.0
//
// Serialised property lists: XML ("plist version 1.0") and binary ("bplist00"), through libplist.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "platform/property_list.h"

namespace telvora {

// The deepest nesting of arrays and dictionaries that is read. Documents come from the network: the limit is
// what keeps a small hostile one from exhausting the stack of a recursive parser.
constexpr size_t kMaxPropertyListDepth = 64;

enum class PropertyListFormat { xml, binary };

// Reads a document of either format. Fails with a reason on anything that is no property list, is nested
// deeper than kMaxPropertyListDepth, or holds a type outside the value type (such as a keyed-archiver UID).
// Thread-safe.
tl::expected<PropertyList, std::string> parsePropertyList(std::string_view document);

// Reads a file of either format, of at most 16 MiB.
tl::expected<PropertyList, std::string> readPropertyListFile(const std::filesystem::path& path);

// Writes a document. Fails with a reason only on values that the format can't hold.
tl::expected<std::string, std::string> serializePropertyList(const PropertyList& value,
                                                             PropertyListFormat format);

}  // namespace telvora
