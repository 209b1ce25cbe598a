// SPDX-License-Identifier: Apache-2.0
#include "policy/event_filters.h"

#include <gtest/gtest.h>

#include "platform/digest.h"

namespace telvora {
namespace {

Dictionary filter(const char* key, const char* action, std::optional<int> method = {},
                  std::optional<int> status = {}) {
    Dictionary result{{"key", key}, {"action", action}};
    if (method) result.set("method", *method);
    if (status) result.set("status", *status);
    return result;
}

TEST(EventFiltersTest, FirstMatchDecides) {
    const std::string hash = convertIntoSHA256("secret");
    const std::string hash12 = convertIntoSHA256("12");  // a number is hashed as sent
    const Array hashOrRemove{filter("k", "sha256", 5), filter("k", "remove")};
    const Array hostile{"text", Dictionary{}, Dictionary{{"key", 7}, {"action", "remove"}},
                        filter("", "remove"),
                        Dictionary{{"key", "k"}, {"action", "remove"}, {"method", "6"}, {"status", Array{}}}};
    const struct {
        const char* what;
        Array filters;
        Dictionary record;
        Dictionary expected;
    } cases[] = {
        {"any status", {filter("rtt", "remove", 5, -1)}, {{"RTT", 1}, {"_method", 5}}, {{"_method", 5}}},
        {"no method counts as 0", {filter("a", "remove", 0, 0)}, {{"a", 1}}, {}},
        {"status", {filter("a", "remove", -1, 2)}, {{"_status", 2}, {"a", 1}}, {{"_status", 2}}},
        {"hash", hashOrRemove, {{"_method", 5}, {"k", "secret"}}, {{"_method", 5}, {"k", hash}}},
        {"remove for the others", hashOrRemove, {{"_method", 6}, {"k", "secret"}}, {{"_method", 6}}},
        {"keep shields", {filter("k", "keep"), filter("k", "remove")}, {{"k", 1}}, {{"k", 1}}},
        {"case of the action", {filter("k", "Remove")}, {{"k", 1}}, {{"k", 1}}},
        {"method is read before it goes",
         {filter("_method", "remove", 5), filter("z", "remove", 5)},
         {{"_method", 5}, {"z", 1}},
         {}},
        {"letters beyond ASCII", {filter("GRÖSSE", "remove")}, {{"größe", 1}, {"grösse", 2}}, {{"größe", 1}}},
        {"number", {filter("k", "sha256")}, {{"k", 12}}, {{"k", hash12}}},
        {"hostile", hostile, {{"", 1}, {"_method", 5}, {"k", 1}}, {{"", 1}, {"_method", 5}}},
    };
    for (const auto& c : cases) {
        std::vector<EventFilter> filters;
        createFiltersFromArray(c.filters, filters);
        createFiltersFromArray({}, filters);  // leaves the filters unchanged
        EXPECT_EQ(filters.size(), c.filters.size());
        Dictionary record = c.record;
        filterEvent(filters, record);
        EXPECT_EQ(record, c.expected) << c.what;
    }
}

TEST(EventFiltersTest, MatchesLists) {
    const struct {
        const char* list;  // null: absent
        std::optional<std::string> text;
        bool whitelist;
        bool exact;
        bool contained;
    } cases[] = {
        {nullptr, "x", true, true, true},
        {nullptr, std::nullopt, true, true, true},
        {nullptr, "x", false, false, false},
        {"a,b", std::nullopt, true, false, false},
        {"a,b", std::nullopt, false, true, true},
        {"a,b", "B", true, true, true},
        {"net", "network", true, false, true},
        {"a,NET", "network", false, false, true},
        {"network", "net", true, false, false},
        {"x, b", "b", true, false, false},
        {"x,", "y", true, false, false},
        {"", "", true, true, false},
        {"Ä", "ä", true, true, true},
    };
    for (const auto& c : cases) {
        const std::string text = c.list != nullptr ? c.list : "";
        SCOPED_TRACE(text + " " + c.text.value_or("-"));
        const StringList list = splitList(c.list != nullptr ? &text : nullptr);
        EXPECT_EQ(matchExactStringWithList(list, c.text, c.whitelist), c.exact);
        EXPECT_EQ(matchStringWithList(list, c.text, c.whitelist), c.contained);
    }
}

TEST(EventFiltersTest, DigestCoversAsManyBytesAsThereAreUtf16Units) {
    const std::pair<std::string, std::string> cases[] = {
        {"abc", "abc"},
        {"", ""},
        {"äbc", "äb"},           // 3 units of 4 bytes
        {"😀x", "\xf0\x9f\x98"},  // a surrogate pair counts two
    };
    for (const auto& [text, hashed] : cases)
        EXPECT_EQ(convertIntoSHA256(text), sha256Hex(hashed)) << text;
}

}  // namespace
}  // namespace telvora
