// SPDX-License-Identifier: Apache-2.0
//
// Compression in memory with fixed parameters (zlib: RFC 1950, gzip: RFC 1952). Thread-safe: no shared state.
// A thread that has compressed keeps zlib's working memory of 256 KB for the next call.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace TelvoradUtil {

// Compresses `input` into one gzip stream (`gzip` true) or one zlib stream (false). std::nullopt, with a line
// at level 3, if the input is empty or longer than 2 GiB, or if zlib fails. Input and output are in memory
// whole.
std::optional<std::string> compressDataWithZlibOrGzip(bool gzip, std::string_view input);

// The gzip form of compressDataWithZlibOrGzip.
std::optional<std::string> gzipDeflate(std::string_view input);

// The content of exactly one gzip stream. std::nullopt if `stream` is not that, or if the content is longer
// than `maxBytes` (less than 4 GiB).
std::optional<std::string> gzipInflate(std::string_view stream, size_t maxBytes);

}  // namespace TelvoradUtil
