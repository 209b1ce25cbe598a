// SPDX-License-Identifier: Apache-2.0
//
// Runs programs and checks their results.
#pragma once

#include <gmock/gmock.h>

#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/child_process.h"

namespace telvora::test {

// The words of a command line without quotes.
inline std::vector<std::string> wordsOf(const std::string& line) {
    std::istringstream words(line);
    return {std::istream_iterator<std::string>(words), {}};
}

// Runs a program to its end. Expects its exit status, and `says` in a line of its output or errors.
inline Finished expectRun(const std::vector<std::string>& words, int status, const std::string& says = "",
                          std::string_view input = "",
                          const std::map<std::string, std::string>& environment = {}) {
    const testing::ScopedTrace trace(__FILE__, __LINE__, testing::PrintToString(words));
    Finished run = runToEnd({words, environment}, input);
    EXPECT_EQ(run.status, status) << testing::PrintToString(run.errors);
    std::vector<std::string> said = run.output;
    said.insert(said.end(), run.errors.begin(), run.errors.end());
    if (!says.empty()) {
        EXPECT_THAT(said, testing::Contains(testing::HasSubstr(says)));
    }
    return run;
}

}  // namespace telvora::test
