// SPDX-License-Identifier: Apache-2.0
//
// What a serialised property list must satisfy before libplist may see it. libplist parses and frees by
// recursion, copies a binary document's shared objects out once per reference, and moves the rest of a text
// for each entity in it; small hostile documents thereby cost stack, memory or time without bound. These
// checks need a fixed depth of stack, no memory and time in proportion to their limits.
#pragma once

#include <string>
#include <string_view>
#include <tl/expected.hpp>

namespace telvora {

// Checks nesting, number of values and entities of an XML document. It may pass a document that libplist then
// finds malformed, but never one in which libplist sees more than was counted here.
tl::expected<void, std::string> checkXmlPropertyList(std::string_view document);

// Checks a binary document object by object: offsets, lengths and references inside the document; only types
// that PropertyList has; nesting (which a cycle exceeds), number and bytes of the values as they will be once
// each reference has its own copy.
tl::expected<void, std::string> checkBinaryPropertyList(std::string_view document);

}  // namespace telvora
