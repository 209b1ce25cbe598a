// SPDX-License-Identifier: Apache-2.0
#include "backends/event_filters.h"

#include <gtest/gtest.h>

#include "backends/telvora_backend.h"

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
    const std::string hash = TelvoraBackend::convertIntoSHA256("secret");
    const struct {
        const char* what;
        Array filters;
        Dictionary record;
        Dictionary expected;
    } cases[] = {
        {"method, any status",
         {filter("rtt", "remove", 5, -1)},
         {{"RTT", 1}, {"_method", 5}},
         {{"_method", 5}}},
        {"other method",
         {filter("rtt", "remove", 5)},
         {{"RTT", 1}, {"_method", 6}},
         {{"RTT", 1}, {"_method", 6}}},
        {"no method counts as 0", {filter("a", "remove", 0, 0)}, {{"a", 1}}, {}},
        {"status", {filter("a", "remove", -1, 2)}, {{"_status", 2}, {"a", 1}}, {{"_status", 2}}},
        {"hash before remove",
         {filter("k", "sha256", 5), filter("k", "remove")},
         {{"_method", 5}, {"k", "secret"}},
         {{"_method", 5}, {"k", hash}}},
        {"remove for the others",
         {filter("k", "sha256", 5), filter("k", "remove")},
         {{"_method", 6}, {"k", "secret"}},
         {{"_method", 6}}},
        {"keep shields", {filter("k", "keep"), filter("k", "remove")}, {{"k", 1}}, {{"k", 1}}},
        {"action is case-sensitive", {filter("k", "Remove")}, {{"k", 1}}, {{"k", 1}}},
        {"method is read before it goes",
         {filter("_method", "remove", 5), filter("z", "remove", 5)},
         {{"_method", 5}, {"z", 1}},
         {}},
        {"letters beyond ASCII",
         {filter("GR\xc3\x96SSE", "remove")},
         {{"gr\xc3\xb6\xc3\x9f"
           "e",
           1},
          {"gr\xc3\xb6sse", 2}},
         {{"gr\xc3\xb6\xc3\x9f"
           "e",
           1}}},
        {"a number is hashed as sent",
         {filter("k", "sha256")},
         {{"k", 12}},
         {{"k", TelvoraBackend::convertIntoSHA256("12")}}},
        {"hostile elements",
         {"text", Dictionary{}, Dictionary{{"key", 7}, {"action", "remove"}}, filter("", "remove"),
          filter("k", "remove")},
         {{"", 1}, {"k", 1}},
         {{"", 1}}},
        {"hostile numbers",
         {Dictionary{{"key", "k"}, {"action", "remove"}, {"method", "6"}, {"status", Array{}}}},
         {{"_method", 5}, {"k", 1}},
         {{"_method", 5}}},
    };
    for (const auto& c : cases) {
        std::vector<EventFilter> filters;
        createFiltersFromArray(c.filters, filters);
        EXPECT_EQ(filters.size(), c.filters.size());
        Dictionary record = c.record;
        filterEvent(filters, record);
        EXPECT_EQ(record, c.expected) << c.what;
    }
}

TEST(EventFiltersTest, AnEmptyArrayKeepsTheFilters) {
    std::vector<EventFilter> filters;
    const Array array{filter("k", "remove")};
    createFiltersFromArray(array, filters);
    createFiltersFromArray({}, filters);
    EXPECT_EQ(filters.size(), 1u);
}

TEST(EventFiltersTest, MatchesLists) {
    const std::string absent;
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
        {"\xc3\x84", "\xc3\xa4", true, true, true},
    };
    for (const auto& c : cases) {
        const std::string text = c.list != nullptr ? c.list : "";
        const StringList list = splitList(c.list != nullptr ? &text : nullptr);
        EXPECT_EQ(matchExactStringWithList(list, c.text, c.whitelist), c.exact)
            << text << " " << c.text.value_or("-");
        EXPECT_EQ(matchStringWithList(list, c.text, c.whitelist), c.contained)
            << text << " " << c.text.value_or("-");
    }
}

}  // namespace
}  // namespace telvora
