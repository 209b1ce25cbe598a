// SPDX-License-Identifier: Apache-2.0
//
// The form of absent texts in log lines, headers and answers.
#pragma once

#include <optional>
#include <string>

namespace telvora {

// The text, or "(null)". Valid as long as `text`.
inline const char* textOrNull(const std::optional<std::string>& text) {
    return text ? text->c_str() : "(null)";
}

inline const char* textOrNull(const std::string* text) {
    return text != nullptr ? text->c_str() : "(null)";
}

}  // namespace telvora
