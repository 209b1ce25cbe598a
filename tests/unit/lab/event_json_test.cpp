// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/event_json.h"

#include <gtest/gtest.h>

namespace telvora {
namespace {

TEST(EventJson, FindsTheNumbersOfEventsAlone) {
    const struct {
        const char* json;
        std::optional<std::vector<uint64_t>> numbers;
    } cases[] = {
        {R"({"n": 9, "events": [{"n": 1, "x": {"n": 7}}, {"n": 2}]})", {{1, 2}}},
        {R"({"events": []})", {{}}},
        {R"({"other": [{"n": 5}], "events": [{"n": 1}]})", {{1}}},
        {R"({"events": [{"m": 1}, {"n": -1}, {"n": 3}]})", {{3}}},
        {R"({"events": [{"n": 1})", std::nullopt},
    };
    for (const auto& [json, numbers] : cases) {
        const auto found = lab::eventNumbers(json, "n");
        EXPECT_EQ(found ? std::optional(*found) : std::nullopt, numbers) << json;
    }
}

}  // namespace
}  // namespace telvora
