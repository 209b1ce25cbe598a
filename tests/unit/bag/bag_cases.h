// SPDX-License-Identifier: Apache-2.0
//
// Bags as JSON, and cases in the text files of this folder.
#pragma once

#include <gmock/gmock.h>

#include <sstream>

#include "json/json_reader.h"
#include "tests/support/temporary_directory.h"

namespace telvora::bag {

using Lines = std::vector<std::string>;

inline Dictionary json(std::string_view text) {
    return *parseJson(text).value().getIf<Dictionary>();
}

inline std::string caseFile(const std::string& name) {
    return test::readFile(std::filesystem::path(TELVORA_BAG_CASES) / name);
}

// The cases of a file: a line and the lines that are expected for it, up to an empty line. "#": a comment.
inline std::vector<std::pair<std::string, Lines>> casesOf(const std::string& name) {
    std::vector<std::pair<std::string, Lines>> cases;
    std::istringstream file(caseFile(name));
    bool isNew = true;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("#")) continue;
        if (!line.empty() && isNew) cases.emplace_back(line, Lines());
        if (!line.empty() && !isNew) cases.back().second.push_back(line);
        isNew = line.empty();
    }
    EXPECT_FALSE(cases.empty()) << name;
    return cases;
}

}  // namespace telvora::bag
