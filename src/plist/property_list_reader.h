// SPDX-License-Identifier: Apache-2.0
//
// The readers of the two formats. Documents come from the network: the limits of property_list_format.h bound
// stack, memory and time for any input. A failure is the reason. Thread-safe.
#pragma once

#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "plist/property_list.h"

namespace telvora {

// XML 1.0, in UTF-8 (with or without a byte order mark), UTF-16, ISO-8859-1 or US-ASCII. The element "plist"
// around the value is optional. Entity declarations are refused.
tl::expected<PropertyList, std::string> readXmlPropertyList(std::string_view document);

// "bplist00".
tl::expected<PropertyList, std::string> readBinaryPropertyList(std::string_view document);

}  // namespace telvora
