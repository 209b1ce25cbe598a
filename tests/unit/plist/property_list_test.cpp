// SPDX-License-Identifier: Apache-2.0
#include "plist/property_list.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>

namespace telvora {
namespace {

TEST(DictionaryTest, EntriesInAnyOrderMakeTheSameDictionary) {
    const Dictionary expected{{"", 8}, {"a", 4}, {"ab", 6}, {"b", 7}, {"\xc3\xa9", 3}};
    EXPECT_EQ(Dictionary::fromEntries({{"\xc3\xa9", 3}, {"b", 7}, {"ab", 6}, {"a", 3}, {"a", 4}, {"", 8}}),
              expected);
    Dictionary dictionary{{"b", 1}, {"a", 2}, {"\xc3\xa9", 3}, {"B", 4}, {"a", 4}};
    dictionary.set("ab", 6);
    dictionary.merge({{"b", 7}, {"", 8}});
    EXPECT_TRUE(dictionary.erase("B"));
    EXPECT_FALSE(dictionary.erase("B"));
    EXPECT_EQ(dictionary, expected);
    dictionary.retain([](const std::string& key, PropertyList& value) {
        if (key == "b") value = Array{1};
        return key != "" && key != "ab";
    });
    EXPECT_EQ(dictionary, (Dictionary{{"a", 4}, {"b", Array{1}}, {"\xc3\xa9", 3}}));
    for (const char* absent : {"aa", "zz"})
        EXPECT_EQ(dictionary.find(absent), nullptr) << absent;
}

TEST(PropertyListTest, NumbersAreReadAsOneAnother) {
    const struct {
        PropertyList value;
        std::optional<int64_t> integer;
        std::optional<double> real;
        bool boolean;
    } cases[] = {
        {true, 1, 1.0, true},
        {-7, -7, -7.0, true},
        {uint64_t{1} << 63, INT64_MAX, 0x1p63, true},
        {-2.9, -2, -2.9, true},
        {0.0, 0, 0.0, false},
        {1e300, INT64_MAX, 1e300, true},
        {-INFINITY, INT64_MIN, -INFINITY, true},
        {" \t+12x", 12, std::nullopt, false},
        {"+-5", 0, std::nullopt, false},
        {"-99999999999999999999", INT64_MIN, std::nullopt, false},
        {"99999999999999999999", INT64_MAX, std::nullopt, false},
        {"", 0, std::nullopt, false},
        {Array{1}, std::nullopt, std::nullopt, false},
        {Date{5}, std::nullopt, std::nullopt, false},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.value.shapeDescription());
        EXPECT_EQ(each.value.integerValue(), each.integer);
        EXPECT_EQ(each.value.realValue(), each.real);
        EXPECT_EQ(each.value.boolValue(), each.boolean);
    }
    EXPECT_EQ(PropertyList(NAN).integerValue(), 0);
    const std::pair<PropertyList, int64_t> wrapped[] = {{uint64_t{1} << 63 | 5, INT64_MIN + 5},
                                                        {0x1p63, INT64_MIN},
                                                        {0x1p64 + 0x1p20, 0x100000},
                                                        {-0x1p64 - 0x1p20, -0x100000},
                                                        {1e300, 0},
                                                        {-2.9, -2},
                                                        {INFINITY, INT64_MAX},
                                                        {"12x", 12},
                                                        {true, 1}};
    for (const auto& [value, integer] : wrapped)
        EXPECT_EQ(value.wrappedInteger(), integer) << integer;
}

TEST(PropertyListTest, ItsShapeTellsNothingOfItsContent) {
    EXPECT_EQ(PropertyList("secret").shapeDescription(), "<string, 6 bytes>");
    EXPECT_EQ(PropertyList(Dictionary{{"secret", 1}}).shapeDescription(), "<dictionary, 1 entries>");
    EXPECT_EQ(PropertyList(42).shapeDescription(), "<integer>");
}

TEST(DictionaryTest, MergeEqualsSettingEachEntry) {
    std::mt19937 random(1);
    const auto randomDictionary = [&random](int origin) {
        Dictionary dictionary;
        for (int i = static_cast<int>(random() % 8); i > 0; --i)
            dictionary.set(std::string(1, static_cast<char>('a' + random() % 10)), origin);
        return dictionary;
    };
    for (int round = 0; round < 2000; ++round) {
        const Dictionary before = randomDictionary(1), other = randomDictionary(2);
        Dictionary expected = before, copied = before, moved = before;
        for (const auto& [key, value] : other)
            expected.set(key, value);
        copied.merge(other);
        moved.merge(Dictionary(other));
        for (const Dictionary& merged : {copied, moved, Dictionary::merged(before, Dictionary(other))})
            ASSERT_EQ(merged, expected);
    }
}

}  // namespace
}  // namespace telvora
