// SPDX-License-Identifier: Apache-2.0
#include "util/compression.h"

#include <gtest/gtest.h>

#include "tests/support/inflated.h"
#include "tests/support/log_capture.h"

namespace telvora::test {
namespace {

TEST(CompressionTest, BothFormsInflateBackToTheInputAndSayWhatTheyDid) {
    const LogCapture log;
    const std::string line = "compressDataWithZlibOrGzip: ";
    std::string incompressible;
    for (uint32_t state = 1; incompressible.size() < 300000; state = state * 1664525 + 1013904223)
        incompressible.push_back(static_cast<char>(state >> 24));
    for (const std::string& input :
         {std::string("x"), std::string("\0", 1), std::string(1 << 20, 'a'), incompressible}) {
        const auto gzip = TelvoradUtil::gzipDeflate(input);
        ASSERT_TRUE(gzip);
        EXPECT_EQ(inflated(*gzip), input);
        EXPECT_EQ(log.lines().back(), "<7>" + line + "Compressed file from " + std::to_string(input.size()) +
                                          " to " + std::to_string(gzip->size()));
        const auto zlib = TelvoradUtil::compressDataWithZlibOrGzip(false, input);
        ASSERT_TRUE(zlib);
        EXPECT_EQ(inflated(*zlib, kZlibStream), input);
    }
    EXPECT_EQ(TelvoradUtil::gzipDeflate(""), std::nullopt);
    EXPECT_EQ(log.lines().back(), "<3>" + line + "Cannot compress empty NSData");
}

}  // namespace
}  // namespace telvora::test
