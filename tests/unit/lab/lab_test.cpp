// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "telvora-lab/event_json.h"
#include "telvora-lab/session_tree.h"

namespace telvora::lab {
namespace {

// "a(1 b(2))": session a with one event, and below it b with two.
std::string drawn(const std::vector<SessionNode>& nodes) {
    std::string text;
    for (const SessionNode& node : nodes) {
        text += (text.empty() ? "" : " ") + node.sessionID + "(" + std::to_string(node.events);
        if (!node.children.empty()) text += " " + drawn(node.children);
        text += ")";
    }
    return text;
}

TEST(SessionTree, IsWhatTheCombinedIDsTell) {
    const std::pair<std::vector<PropertyList>, const char*> cases[] = {
        {{}, ""},
        {{"a", "b", "a"}, "a(2) b(1)"},
        {{"a", "a.b", "a.c", "a.b.d"}, "a(1 b(1 d(1)) c(1))"},
        {{"a.b.c"}, "a(0 b(0 c(1)))"},
        {{"b", "a.b", "b.c"}, "a(0 b(2 c(1)))"},       // reported before it knew its parent; a gap
        {{"a.c", "b.c"}, "a(0) b(0 c(2))"},            // a new parent
        {{"a.b", "b.a", "c.c"}, "a(1 b(1)) c(1)"},     // circles
        {{7, 7, PropertyList(Dictionary{})}, "7(2)"},  // numeric IDs
    };
    for (const auto& [ids, tree] : cases) {
        std::vector<Dictionary> events{{{"other", 1}}};
        for (const PropertyList& id : ids)
            events.push_back({{"_sessionID", id}});
        EXPECT_EQ(drawn(sessionTree(events)), tree);
    }
}

TEST(EventJson, FindsTheNumbersOfEventsAlone) {
    const std::pair<const char*, std::optional<std::vector<uint64_t>>> cases[] = {
        {R"({"n": 9, "events": [{"n": 1, "x": {"n": 7}}, {"n": 2}]})", {{1, 2}}},
        {R"({"events": []})", {{}}},
        {R"({"other": [{"n": 5}], "events": [{"n": 1}]})", {{1}}},
        {R"({"events": [{"m": 1}, {"n": -1}, {"n": 3}]})", {{3}}},
        {R"({"events": [{"n": 1})", std::nullopt}};
    for (const auto& [json, numbers] : cases) {
        const auto found = eventNumbers(json, "n");
        EXPECT_EQ(found ? std::optional(*found) : std::nullopt, numbers) << json;
    }
}

}  // namespace
}  // namespace telvora::lab
