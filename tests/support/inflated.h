// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zlib.h>

#include <optional>
#include <string>
#include <string_view>

namespace telvora::test {

constexpr int kZlibStream = 15;
constexpr int kGzipStream = 31;

// The content of exactly one stream of that kind (zlib's window bits), else `std::nullopt`.
inline std::optional<std::string> inflated(std::string_view stream, int kind = kGzipStream) {
    z_stream state{};
    state.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.data()));
    state.avail_in = static_cast<uInt>(stream.size());
    if (inflateInit2(&state, kind) != Z_OK) return std::nullopt;
    std::string content;
    int result = Z_OK;
    while (result == Z_OK) {
        Bytef part[16384];
        state.next_out = part;
        state.avail_out = sizeof part;
        result = inflate(&state, Z_NO_FLUSH);
        content.append(reinterpret_cast<char*>(part), sizeof part - state.avail_out);
    }
    inflateEnd(&state);
    if (result != Z_STREAM_END || state.avail_in != 0) return std::nullopt;
    return content;
}

}  // namespace telvora::test
