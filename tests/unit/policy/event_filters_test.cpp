// SPDX-License-Identifier: Apache-2.0
#include "policy/event_filters.h"

#include <gtest/gtest.h>

#include "platform/digest.h"
#include "policy/client_entry.h"

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
    const std::tuple<const char*, Array, Dictionary, Dictionary> cases[] = {
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
        {"hostile", hostile, {{"", 1}, {"_method", 5}, {"k", 1}}, {{"", 1}, {"_method", 5}}}};
    for (const auto& [what, list, before, after] : cases) {
        std::vector<EventFilter> filters;
        createFiltersFromArray(list, filters);
        createFiltersFromArray({}, filters);  // leaves the filters unchanged
        Dictionary record = before;
        filterEvent(filters, record);
        EXPECT_EQ(record, after) << what;
    }
}

TEST(EventFiltersTest, MatchesLists) {
    // The list, the text, whether the list is a whitelist, and whether it has the whole text and a part of
    // it.
    using Text = std::optional<std::string>;
    const std::tuple<Text, Text, bool, bool, bool> cases[] = {{{}, "x", true, true, true},
                                                              {{}, {}, true, true, true},
                                                              {{}, "x", false, false, false},
                                                              {"a,b", {}, true, false, false},
                                                              {"a,b", {}, false, true, true},
                                                              {"a,b", "B", true, true, true},
                                                              {"net", "network", true, false, true},
                                                              {"a,NET", "network", false, false, true},
                                                              {"network", "net", true, false, false},
                                                              {"x, b", "b", true, false, false},
                                                              {"x,", "y", true, false, false},
                                                              {"", "", true, true, false},
                                                              {"Ä", "ä", true, true, true}};
    for (const auto& [elements, text, isWhitelist, exact, contained] : cases) {
        SCOPED_TRACE(elements.value_or("-") + " " + text.value_or("-"));
        const StringList list = splitList(elements ? &*elements : nullptr);
        EXPECT_EQ(matchExactStringWithList(list, text, isWhitelist), exact);
        EXPECT_EQ(matchStringWithList(list, text, isWhitelist), contained);
    }
}

TEST(EventFiltersTest, ACategoryIsHeldByTheNumbersOfAList) {
    const Array list{Dictionary{}, "5", 7, 65536 + 9};
    for (const auto& [category, held] :
         {std::pair<uint16_t, bool>{0, false}, {5, true}, {7, true}, {9, false}})
        EXPECT_EQ(listHoldsCategory(list, category), held) << category;
}

TEST(EventFiltersTest, DigestCoversAsManyBytesAsThereAreUtf16Units) {
    for (const auto& [text, hashed] :
         {std::pair{"abc", "abc"}, {"", ""}, {"äbc", "äb"}, {"😀x", "\xf0\x9f\x98"}})
        EXPECT_EQ(convertIntoSHA256(text), sha256Hex(hashed)) << text;  // a surrogate pair counts two
}

}  // namespace
}  // namespace telvora
