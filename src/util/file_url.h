// SPDX-License-Identifier: Apache-2.0
//
// File URLs (RFC 8089). Thread-safe: no shared state.
#pragma once

#include <string>
#include <string_view>

namespace telvora {

// The file URL of an absolute path, percent-encoded: "/a b" gives "file:///a%20b".
std::string fileURLOfPath(std::string_view path);

// The path of a file URL without query and fragment, percent-decoded: "file:///a%20b" and
// "file://localhost/a%20b?c#d" both give "/a b". A text that is no file URL counts as a path itself.
// Empty for a URL of another host, and for an encoding that is broken or contains a zero byte.
std::string pathOfFileURL(std::string_view url);

// A URL from outside as one line of text: control characters, which no URL has, are percent-encoded.
std::string textOfURL(std::string_view url);

}  // namespace telvora
