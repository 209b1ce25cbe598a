// SPDX-License-Identifier: Apache-2.0
#include "util/log.h"

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"

namespace telvora {
namespace {

TEST(LogTest, NothingIsEvaluatedAboveTheThreshold) {
    const test::LogCapture log;
    setLogThreshold(kLogWarning);
    int evaluated = 0;
    TELVORA_LOG(kLogInfo, "%d", ++evaluated);
    TELVORA_LOG(kLogWarning, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"<4>1"});
}

TEST(LogTest, TextFromOutsideCannotForgeALineWhichIsWholeAtAnyLength) {
    const test::LogCapture log;
    TELVORA_LOG(kLogInfo, "%s", "a\n<3>forged\r\x1b[2J\x7f \xc3\xa9\n");
    TELVORA_LOG(kLogInfo, "%s", std::string(2000, '\t').c_str());
    std::string tabs;
    for (int i = 0; i < 2000; ++i)
        tabs += "\\x09";
    std::vector<std::string> expected{"<6>a\\x0a<3>forged\\x0d\\x1b[2J\\x7f \xc3\xa9\n", "<6>" + tabs};
    for (const size_t length : {0, 511, 512, 513, 100000}) {
        TELVORA_LOG(kLogInfo, "%s", std::string(length, 'x').c_str());
        expected.push_back("<6>" + std::string(length, 'x'));
    }
    EXPECT_EQ(log.lines(), expected);
}

}  // namespace
}  // namespace telvora
