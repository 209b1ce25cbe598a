// SPDX-License-Identifier: Apache-2.0
//
// In-memory deflate with fixed parameters (zlib: RFC 1950, gzip: RFC 1952). Thread-safe: no shared state;
// a thread that has compressed keeps zlib's working memory of 256 KB for the next time.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace TelvoradUtil {

// Compresses `input` whole into one gzip stream (`gzip` true) or one zlib stream (false). Nothing, and a line
// at level 3, when the input is empty, longer than 2 GiB, or zlib fails; never a part of the output. Input
// and output are in memory whole.
std::optional<std::string> compressDataWithZlibOrGzip(bool gzip, std::string_view input);

// The gzip form of compressDataWithZlibOrGzip.
std::optional<std::string> gzipDeflate(std::string_view input);

}  // namespace TelvoradUtil
