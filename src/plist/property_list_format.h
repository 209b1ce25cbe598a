// SPDX-License-Identifier: Apache-2.0
//
// Serialised property lists: XML ("plist version 1.0") and binary ("bplist00").
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "plist/property_list.h"

namespace telvora {

// The deepest nesting of arrays and dictionaries that is read or written; bounds the stack.
constexpr size_t kMaxDocumentDepth = 64;

// The longest document that is read, in bytes, and the most values (keys included) in one: more than any
// document of that length with distinct keys has. A binary document can refer to one object many times: the
// object's values and bytes count once per reference. The worst documents take 115 MB and half a second.
constexpr size_t kMaxDocumentBytes = 16 << 20;
constexpr size_t kMaxDocumentValues = 1 << 21;

enum class PropertyListFormat { xml, binary };

// Reads a document of either format. Fails with a reason on input that is no property list, exceeds one of
// the limits above, or holds a type outside the value type (such as a keyed-archiver UID), a string that is
// not UTF-8 or has a zero byte, or a date outside the years 1 to 9999. Thread-safe.
tl::expected<PropertyList, std::string> parsePropertyList(std::string_view document);

// Whether a failure of parsePropertyList() with this reason was only due to one of the limits.
bool exceedsPropertyListLimit(std::string_view reason);

// Reads a regular file of either format, of at most kMaxDocumentBytes. Blocks on file I/O.
tl::expected<PropertyList, std::string> readPropertyListFile(const std::filesystem::path& path);

// Writes a document. Fails with a reason on values that the format can't hold: nesting, strings and dates
// that parsePropertyList() would refuse and, in XML, control characters. XML keeps only the whole seconds of
// a date. Thread-safe.
tl::expected<std::string, std::string> serializePropertyList(const PropertyList& value,
                                                             PropertyListFormat format);

}  // namespace telvora
