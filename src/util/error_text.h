// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <system_error>

namespace telvora {

// The text of an errno value, as strerror(3) gives it, but thread-safe.
inline std::string errorText(int error) {
    return std::generic_category().message(error);
}

// "OPERATION: TEXT" for an operation that failed with this errno value.
inline std::string errorText(std::string_view operation, int error) {
    return std::string(operation) + ": " + errorText(error);
}

}  // namespace telvora
