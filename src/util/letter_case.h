// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace telvora {

// The UTF-8 text in lower case, letter by letter as towlower(3) maps them in the locale C.UTF-8, whatever the
// process's own locale is. Bytes that are no UTF-8 stay as they are. On a system without that locale, so do
// letters outside ASCII. Thread-safe.
std::string lowerCase(std::string_view text);

}  // namespace telvora
