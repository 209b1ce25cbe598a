// SPDX-License-Identifier: Apache-2.0
//
// How a text that is absent shows where a line, a header or an answer has a place for it.
#pragma once

#include <optional>
#include <string>

namespace telvora {

// The text, or "(null)". Valid as long as `text` is.
inline const char* textOrNull(const std::optional<std::string>& text) {
    return text ? text->c_str() : "(null)";
}

inline const char* textOrNull(const std::string* text) {
    return text != nullptr ? text->c_str() : "(null)";
}

}  // namespace telvora
