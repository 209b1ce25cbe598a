// SPDX-License-Identifier: Apache-2.0
#include "platform/property_list.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace telvora {
namespace {

constexpr int64_t kMost = std::numeric_limits<int64_t>::max();
constexpr int64_t kLeast = std::numeric_limits<int64_t>::min();

TEST(DictionaryTest, IsEnumeratedInTheByteOrderOfItsKeys) {
    Dictionary dictionary{{"b", 1}, {"a", 2}, {"\xc3\xa9", 3}, {"B", 4}, {"a", 5}};
    dictionary.set("ab", 6);
    dictionary.merge({{"b", 7}, {"", 8}});
    EXPECT_TRUE(dictionary.erase("B"));
    EXPECT_FALSE(dictionary.erase("B"));
    std::vector<std::pair<std::string, int64_t>> entries;
    for (const auto& [key, value] : dictionary)
        entries.emplace_back(key, *value.integerValue());
    const decltype(entries) expected{{"", 8}, {"a", 5}, {"ab", 6}, {"b", 7}, {"\xc3\xa9", 3}};
    EXPECT_EQ(entries, expected);
    EXPECT_EQ(dictionary.find("aa"), nullptr);
    EXPECT_EQ(dictionary.find("zz"), nullptr);
}

TEST(DictionaryTest, EntriesInAnyOrderMakeTheSameDictionary) {
    const Dictionary expected{{"a", 4}, {"b", 2}, {"c", 1}};
    EXPECT_EQ(Dictionary::fromEntries({{"c", 1}, {"b", 2}, {"a", 3}, {"a", 4}}), expected);
    EXPECT_EQ(Dictionary::fromEntries({{"a", 3}, {"a", 4}, {"b", 2}, {"c", 1}}), expected);
    EXPECT_TRUE(Dictionary::fromEntries({}).empty());
}

struct NumberCase {
    PropertyList value;
    std::optional<int64_t> integer;
    std::optional<double> real;
    bool boolean;
};

TEST(PropertyListTest, NumbersAreReadAsOneAnother) {
    const NumberCase cases[] = {
        {true, 1, 1.0, true},
        {-7, -7, -7.0, true},
        {uint64_t{1} << 63, kMost, 0x1p63, true},
        {uint64_t{5}, 5, 5.0, true},
        {-2.9, -2, -2.9, true},
        {0.0, 0, 0.0, false},
        {1e300, kMost, 1e300, true},
        {-INFINITY, kLeast, -INFINITY, true},
        {" \t+12x", 12, std::nullopt, false},
        {"-99999999999999999999", kLeast, std::nullopt, false},
        {"99999999999999999999", kMost, std::nullopt, false},
        {"x1", 0, std::nullopt, false},
        {"", 0, std::nullopt, false},
        {Array{1}, std::nullopt, std::nullopt, false},
        {Date{5}, std::nullopt, std::nullopt, false},
    };
    for (const NumberCase& test : cases) {
        SCOPED_TRACE(test.value.shapeDescription());
        EXPECT_EQ(test.value.integerValue(), test.integer);
        EXPECT_EQ(test.value.realValue(), test.real);
        EXPECT_EQ(test.value.boolValue(), test.boolean);
    }
    EXPECT_EQ(PropertyList(NAN).integerValue(), 0);
    EXPECT_EQ(leadingInteger("+-5"), 0);
}

TEST(PropertyListTest, ItsShapeTellsNothingOfItsContent) {
    EXPECT_EQ(PropertyList("secret").shapeDescription(), "<string, 6 bytes>");
    EXPECT_EQ(PropertyList(Dictionary{{"secret", 1}}).shapeDescription(), "<dictionary, 1 entries>");
    EXPECT_EQ(PropertyList(42).shapeDescription(), "<integer>");
}

Dictionary randomDictionary(std::mt19937& random, int origin) {
    Dictionary dictionary;
    for (int i = static_cast<int>(random() % 8); i > 0; --i)
        dictionary.set(std::string(1, static_cast<char>('a' + random() % 10)), origin);
    return dictionary;
}

TEST(DictionaryTest, MergeEqualsSettingEachEntry) {
    std::mt19937 random(1);
    for (int round = 0; round < 2000; ++round) {
        const Dictionary before = randomDictionary(random, 1);
        const Dictionary other = randomDictionary(random, 2);
        Dictionary expected = before;
        for (const Dictionary::Entry& entry : other)
            expected.set(entry.key, entry.value);
        Dictionary copied = before;
        copied.merge(other);
        ASSERT_EQ(copied, expected);
        Dictionary moved = before;
        moved.merge(Dictionary(other));
        ASSERT_EQ(moved, expected);
        ASSERT_EQ(Dictionary::merged(before, Dictionary(other)), expected);
    }
}

TEST(DictionaryTest, RetainChangesAndRemovesInPlace) {
    Dictionary dictionary{{"a", 1}, {"b", "two"}, {"c", 3}, {"d", 4}};
    std::string seen;
    dictionary.retain([&seen](const std::string& key, PropertyList& value) {
        seen += key;
        if (key == "c") value = Array{1};
        return key != "a" && key != "d";
    });
    EXPECT_EQ(seen, "abcd");
    EXPECT_EQ(dictionary, (Dictionary{{"b", "two"}, {"c", Array{1}}}));
}

}  // namespace
}  // namespace telvora
