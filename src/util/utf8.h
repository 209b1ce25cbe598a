// SPDX-License-Identifier: Apache-2.0
//
// UTF-8 (RFC 3629): validation and repair. Thread-safe: no shared state.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace telvora {

// Whether the text is well-formed UTF-8: no overlong forms, no surrogates, no code points above U+10FFFF.
bool isValidUtf8(std::string_view text);

// A copy in which every byte that can't be part of a well-formed sequence is replaced by U+FFFD.
std::string replaceInvalidUtf8(std::string_view text);

// Text from outside, for a terminal or a log. A copy in which control characters (C0, DEL and C1), except
// those in `kept`, line and paragraph separators, characters that override the direction of text, and bytes
// outside well-formed sequences are written as \xNN per byte: the text can neither control a terminal nor
// forge a line.
std::string escapeControlCharacters(std::string_view text, std::string_view kept = {});

// The same for a JSON document, which stays the same document: these characters, other than line feeds
// between its values, become \uNNNN.
std::string escapeControlCharactersInJson(std::string_view json);

// The length of the text in UTF-16 code units (RFC 2781). A byte of an ill-formed sequence counts as one.
size_t utf16Length(std::string_view text);

}  // namespace telvora
