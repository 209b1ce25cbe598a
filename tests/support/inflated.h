// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zlib.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace telvora::test {

constexpr int kZlibStream = 15;
constexpr int kGzipStream = 31;

// The content, at most 16 MiB, of exactly one stream of that kind (zlib's window bits), else `std::nullopt`.
inline std::optional<std::string> inflated(std::string_view stream, int kind = kGzipStream) {
    constexpr uInt kMost = 16 << 20;
    const auto content = std::make_unique_for_overwrite<Bytef[]>(kMost);
    z_stream state{};
    state.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.data()));
    state.avail_in = static_cast<uInt>(stream.size());
    state.next_out = content.get();
    state.avail_out = kMost;
    if (inflateInit2(&state, kind) != Z_OK) return std::nullopt;
    const int result = inflate(&state, Z_FINISH);
    inflateEnd(&state);
    if (result != Z_STREAM_END || state.avail_in != 0) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(content.get()), state.total_out);
}

}  // namespace telvora::test
