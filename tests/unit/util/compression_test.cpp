// SPDX-License-Identifier: Apache-2.0
#include "util/compression.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include "tests/support/log_capture.h"

namespace TelvoradUtil {
namespace {

// Inflates one whole zlib (window bits 15) or gzip (31) stream; nothing when it is not exactly that.
std::optional<std::string> inflated(std::string stream, int windowBits, size_t sizeOfContent) {
    z_stream state{};
    std::string content(sizeOfContent + 1, '\0');
    state.next_in = reinterpret_cast<Bytef*>(stream.data());
    state.avail_in = static_cast<uInt>(stream.size());
    state.next_out = reinterpret_cast<Bytef*>(content.data());
    state.avail_out = static_cast<uInt>(content.size());
    if (inflateInit2(&state, windowBits) != Z_OK) return std::nullopt;
    const int result = inflate(&state, Z_FINISH);
    content.resize(state.total_out);
    const bool whole = result == Z_STREAM_END && state.avail_in == 0;
    inflateEnd(&state);
    return whole ? std::optional(content) : std::nullopt;
}

TEST(CompressionTest, BothFormsInflateBackToTheInputAndSayWhatTheyDid) {
    const telvora::test::LogCapture log;
    std::string incompressible;
    for (uint32_t state = 1; incompressible.size() < 300000; state = state * 1664525 + 1013904223)
        incompressible.push_back(static_cast<char>(state >> 24));
    for (const std::string& input :
         {std::string("x"), std::string("\0", 1), std::string(1 << 20, 'a'), incompressible}) {
        const auto gzip = gzipDeflate(input);
        ASSERT_TRUE(gzip);
        EXPECT_EQ(inflated(*gzip, 31, input.size()), input);
        EXPECT_TRUE(log.contains("<7>compressDataWithZlibOrGzip: Compressed file from " +
                                 std::to_string(input.size()) + " to " + std::to_string(gzip->size())));
        const auto zlib = compressDataWithZlibOrGzip(false, input);
        ASSERT_TRUE(zlib);
        EXPECT_EQ(inflated(*zlib, 15, input.size()), input);
    }
    EXPECT_EQ(gzipDeflate(""), std::nullopt);
    EXPECT_TRUE(log.contains("<3>compressDataWithZlibOrGzip: Cannot compress empty NSData"));
}

}  // namespace
}  // namespace TelvoradUtil
