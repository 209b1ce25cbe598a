// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace telvora {

// The path of a file URL (RFC 8089) without query and fragment, its percent-encoding undone; "file:///a%20b"
// and "file://localhost/a%20b?c#d" both give "/a b". A text that is no file URL counts as a path itself.
// Empty for a URL of another host, and where the encoding is broken or hides a zero byte: no file has such a
// path.
std::string pathOfFileURL(std::string_view url);

// A URL from outside as one line of text: control characters, which no URL has, are percent-encoded.
std::string textOfURL(std::string_view url);

}  // namespace telvora
