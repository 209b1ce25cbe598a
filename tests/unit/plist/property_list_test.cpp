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
    Dictionary dictionary{{"b", 7}, {"a", 2}, {"\xc3\xa9", 3}, {"B", 4}, {"a", 4}, {"", 8}};
    dictionary.set("ab", 6);
    EXPECT_TRUE(dictionary.erase("B") && !dictionary.erase("B"));
    EXPECT_EQ(dictionary, expected);
    dictionary.retain([](const std::string& key, PropertyList& value) {
        if (key == "b") value = Array{1};
        return key != "" && key != "ab";
    });
    EXPECT_EQ(dictionary, (Dictionary{{"a", 4}, {"b", Array{1}}, {"\xc3\xa9", 3}}));
    EXPECT_FALSE(dictionary.contains("aa") || dictionary.contains("zz"));
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

TEST(PropertyListTest, NumbersAreReadAsOneAnother) {
    // The value as an integer, as a wrapped integer, as a number and as a boolean.
    const std::tuple<PropertyList, std::optional<int64_t>, std::optional<int64_t>, std::optional<double>,
                     bool>
        cases[] = {{true, 1, 1, 1.0, true},
                   {-7, -7, -7, -7.0, true},
                   {uint64_t{1} << 63 | 5, INT64_MAX, INT64_MIN + 5, 0x1p63 + 5, true},
                   {0x1p63, INT64_MAX, INT64_MIN, 0x1p63, true},
                   {0x1p64 + 0x1p20, INT64_MAX, 0x100000, 0x1p64 + 0x1p20, true},
                   {-0x1p64 - 0x1p20, INT64_MIN, -0x100000, -0x1p64 - 0x1p20, true},
                   {-2.9, -2, -2, -2.9, true},
                   {0.0, 0, 0, 0.0, false},
                   {1e300, INT64_MAX, 0, 1e300, true},
                   {INFINITY, INT64_MAX, INT64_MAX, INFINITY, true},
                   {-INFINITY, INT64_MIN, INT64_MIN, -INFINITY, true},
                   {" \t+12x", 12, 12, {}, false},
                   {"+-5", 0, 0, {}, false},
                   {"-99999999999999999999", INT64_MIN, INT64_MIN, {}, false},
                   {"99999999999999999999", INT64_MAX, INT64_MAX, {}, false},
                   {"", 0, 0, {}, false},
                   {Array{1}, {}, {}, {}, false},
                   {Date{5}, {}, {}, {}, false}};
    for (const auto& [value, integer, wrapped, real, boolean] : cases) {
        SCOPED_TRACE(testing::PrintToString(integer) + value.shapeDescription());
        EXPECT_EQ(value.integerValue(), integer);
        EXPECT_EQ(value.wrappedInteger(), wrapped);
        EXPECT_EQ(value.realValue(), real);
        EXPECT_EQ(value.boolValue(), boolean);
    }
    EXPECT_EQ(PropertyList(NAN).integerValue(), 0);
}

TEST(PropertyListTest, ItsShapeTellsNothingOfItsContent) {
    EXPECT_EQ(PropertyList("secret").shapeDescription(), "<string, 6 bytes>");
    EXPECT_EQ(PropertyList(Dictionary{{"secret", 1}}).shapeDescription(), "<dictionary, 1 entries>");
    EXPECT_EQ(PropertyList(42).shapeDescription(), "<integer>");
}

}  // namespace
}  // namespace telvora
