// SPDX-License-Identifier: Apache-2.0
//
// UTF-8 (RFC 3629) as the daemon needs it. Thread-safe: no state.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace telvora {

// Whether the text is well-formed UTF-8: no overlong forms, no surrogates, nothing beyond U+10FFFF.
bool isValidUtf8(std::string_view text);

// A copy in which every byte that can't be part of a well-formed sequence is replaced by U+FFFD.
std::string replaceInvalidUtf8(std::string_view text);

// A copy in which control characters (C0, DEL and C1), but for those in `kept`, and bytes that can't be part
// of a well-formed sequence are written as \xNN: it can neither steer a terminal nor forge a line.
std::string escapeControlCharacters(std::string_view text, std::string_view kept = {});

// How many UTF-16 code units the text has (RFC 2781). A byte of an ill-formed sequence counts as one.
size_t utf16Length(std::string_view text);

}  // namespace telvora
