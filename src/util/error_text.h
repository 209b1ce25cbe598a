// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
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

// The same for the daemon's socket at `path`, with the difference between absence and permission for people.
inline std::string connectErrorText(const std::string& path, int error) {
    const char* const hint = error == ENOENT         ? "; no daemon has made this socket"
                             : error == ECONNREFUSED ? "; no daemon listens there"
                             : error == EACCES ? "; only root and members of the socket's group may use it"
                                               : "";
    return errorText("can't connect to " + path, error) + hint;
}

}  // namespace telvora
