// SPDX-License-Identifier: Apache-2.0
#include "protocol/property_list_codec.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <functional>
#include <limits>

#include "tests/support/bus_messages.h"

namespace telvora {
namespace {

using test::BusMessages;

class PropertyListCodec : public testing::Test {
  protected:
    // What the other side reads of what `write` wrote.
    BusMessage written(const std::function<void(ArgumentWriter&)>& write) {
        BusMessage message = messages_.make();
        ArgumentWriter out(message);
        write(out);
        EXPECT_EQ(out.result(), 0);
        return BusMessages::readable(std::move(message));
    }

    BusMessages messages_;
};

Dictionary nested(int depth) {
    Dictionary dictionary{{"leaf", true}};
    for (int i = 1; i < depth; ++i)
        dictionary = Dictionary{{"d", Array{std::move(dictionary)}}};
    return dictionary;
}

TEST_F(PropertyListCodec, CarriesEveryKindOfValue) {
    const Dictionary sent{
        {"true", true},
        {"false", false},
        {"zero", 0},
        {"lowest", std::numeric_limits<int64_t>::min()},
        {"highest", std::numeric_limits<uint64_t>::max()},
        {"real", -0.1},
        {"infinite", std::numeric_limits<double>::infinity()},
        {"empty", ""},
        {"text", "Grüße, \u4e16\u754c \U0001F30D"},
        {"data", Data{std::string("\0\xff\x80", 3)}},
        {"no data", Data{}},
        {"date", Date{1447660800.25}},
        {"array", Array{1, "two", 3.5, Array{}, Dictionary{}, Data{"d"}, Date{-1}}},
        {"dictionary", Dictionary{{"", Dictionary{{"k", Array{Array{Array{false}}}}}}}},
    };
    BusMessage message = written([&](ArgumentWriter& out) { out.dictionary(sent); });
    EXPECT_STREQ(sd_bus_message_get_signature(message.get(), true), "a{sv}");
    ArgumentReader in(message);
    EXPECT_EQ(in.dictionary(), sent);
    EXPECT_TRUE(in.ok()) << in.failure();
}

TEST_F(PropertyListCodec, ReadsEveryIntegerType) {
    BusMessage message =
        messages_.make("av", 8, "y", 255, "n", -32768, "q", 65535, "i", std::numeric_limits<int32_t>::min(),
                       "u", std::numeric_limits<uint32_t>::max(), "x", std::numeric_limits<int64_t>::min(),
                       "t", std::numeric_limits<uint64_t>::max(), "t", uint64_t{7});
    ArgumentReader in(message);
    const Array expected{255,
                         -32768,
                         65535,
                         std::numeric_limits<int32_t>::min(),
                         std::numeric_limits<uint32_t>::max(),
                         std::numeric_limits<int64_t>::min(),
                         std::numeric_limits<uint64_t>::max(),
                         7};
    EXPECT_EQ(in.array(), expected);
    EXPECT_TRUE(in.ok()) << in.failure();
}

TEST_F(PropertyListCodec, CarriesPlainArgumentsAndValuesOrNothing) {
    const TelvoraError error{"domain", -1, "it went wrong"};
    BusMessage message = written([&](ArgumentWriter& out) {
        out.boolean(true);
        out.u16(65535);
        out.real(1.5);
        out.string("s");
        out.strings({"a", "", "c"});
        out.array(Array{1, 2});
        out.optionalDictionary(std::nullopt);
        out.optionalDictionary(Dictionary{});
        out.optionalString(std::nullopt);
        out.optionalString("");
        out.optionalStrings(std::nullopt);
        out.optionalStrings(std::vector<std::string>{});
        out.optionalError(std::nullopt);
        out.optionalError(error);
    });
    EXPECT_STREQ(sd_bus_message_get_signature(message.get(), true),
                 "bqdsasavaa{sv}aa{sv}asasaasaasa(sis)a(sis)");
    ArgumentReader in(message);
    EXPECT_TRUE(in.boolean());
    EXPECT_EQ(in.u16(), 65535);
    EXPECT_EQ(in.real(), 1.5);
    EXPECT_EQ(in.string(), "s");
    EXPECT_EQ(in.strings(), (std::vector<std::string>{"a", "", "c"}));
    EXPECT_EQ(in.array(), (Array{1, 2}));
    EXPECT_EQ(in.optionalDictionary(), std::nullopt);
    EXPECT_EQ(in.optionalDictionary(), Dictionary{});
    EXPECT_EQ(in.optionalString(), std::nullopt);
    EXPECT_EQ(in.optionalString(), "");
    EXPECT_EQ(in.optionalStrings(), std::nullopt);
    EXPECT_EQ(in.optionalStrings(), std::vector<std::string>{});
    EXPECT_EQ(in.optionalError(), std::nullopt);
    EXPECT_EQ(in.optionalError(), error);
    EXPECT_TRUE(in.ok()) << in.failure();
}

TEST_F(PropertyListCodec, CarriesADescriptor) {
    const UniqueFd null(open("/dev/null", O_RDONLY | O_CLOEXEC));
    BusMessage message = written([&](ArgumentWriter& out) { out.file(null.get()); });
    ArgumentReader in(message);
    const UniqueFd received = in.file();
    struct stat a = {};
    struct stat b = {};
    ASSERT_EQ(fstat(received.get(), &a), 0);
    ASSERT_EQ(fstat(null.get(), &b), 0);
    EXPECT_EQ(a.st_rdev, b.st_rdev);
    EXPECT_TRUE((fcntl(received.get(), F_GETFD) & FD_CLOEXEC) != 0);
}

TEST_F(PropertyListCodec, LastOfEqualKeysWins) {
    BusMessage message = messages_.make("a{sv}", 3, "k", "s", "first", "j", "b", 1, "k", "i", 2);
    ArgumentReader in(message);
    EXPECT_EQ(in.dictionary(), (Dictionary{{"j", true}, {"k", 2}}));
}

TEST_F(PropertyListCodec, RefusesTypesThatAreNoPropertyList) {
    const struct {
        const char* type;
        std::function<BusMessage(BusMessages&)> make;
    } cases[] = {
        {"g", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "g", "ss"); }},
        {"o", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "o", "/a"); }},
        {"h", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "h", 0); }},
        {"v", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "v", "s", "x"); }},
        {"as", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "as", 1, "x"); }},
        {"ai", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "ai", 0); }},
        {"aav", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "aav", 0); }},
        {"(dd)", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "(dd)", 1.0, 2.0); }},
        {"(i)", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "(i)", 1); }},
        {"a{iv}", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "a{iv}", 1, 5, "b", 1); }},
        {"a{ss}", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "a{ss}", 0); }},
        {"o", [](BusMessages& m) { return m.make("a{sv}", 1, "k", "av", 2, "i", 1, "o", "/a"); }},
    };
    for (const auto& [type, make] : cases) {
        BusMessage message = make(messages_);
        ArgumentReader in(message);
        in.dictionary();
        EXPECT_EQ(in.failure(),
                  "A value of type '" + std::string(type) + "' has no place in a property list");
    }
}

TEST_F(PropertyListCodec, RefusesMoreThanOneWhereOneOrNothingBelongs) {
    BusMessage dictionaries = messages_.make("aa{sv}", 2, 0, 0);
    BusMessage strings = messages_.make("as", 2, "a", "b");
    ArgumentReader fromDictionaries(dictionaries);
    ArgumentReader fromStrings(strings);
    fromDictionaries.optionalDictionary();
    fromStrings.optionalString();
    for (const ArgumentReader* in : {&fromDictionaries, &fromStrings})
        EXPECT_EQ(in->failure(), "More than one element where one value or nothing is expected");
}

TEST_F(PropertyListCodec, BoundsNesting) {
    // Each level of nested() is a dictionary and an array.
    const Dictionary deepest = nested(kMaxPropertyListDepth / 2);
    BusMessage message = written([&](ArgumentWriter& out) { out.dictionary(deepest); });
    ArgumentReader in(message);
    EXPECT_EQ(in.dictionary(), deepest);
    EXPECT_TRUE(in.ok()) << in.failure();

    BusMessage refused = messages_.make();
    ArgumentWriter out(refused);
    out.dictionary(nested(kMaxPropertyListDepth / 2 + 1));
    EXPECT_LT(out.result(), 0);

    BusMessage tooDeep = messages_.make();
    for (int i = 0; i <= kMaxPropertyListDepth; ++i) {
        ASSERT_GE(tooDeep.open('a', "v"), 0);
        ASSERT_GE(tooDeep.open('v', "av"), 0);
    }
    ASSERT_GE(tooDeep.open('a', "v"), 0);
    ASSERT_GE(tooDeep.close(), 0);
    for (int i = 0; i <= kMaxPropertyListDepth; ++i) {
        ASSERT_GE(tooDeep.close(), 0);
        ASSERT_GE(tooDeep.close(), 0);
    }
    tooDeep = BusMessages::readable(std::move(tooDeep));
    ArgumentReader deepIn(tooDeep);
    deepIn.array();
    EXPECT_EQ(deepIn.failure(), "The property list is nested too deep");
}

TEST_F(PropertyListCodec, TheFirstFailureSticks) {
    BusMessage message = messages_.make("sq", "text", 7);
    ArgumentReader in(message);
    EXPECT_EQ(in.u16(), 0);  // there is a string
    EXPECT_EQ(in.string(), "");
    EXPECT_FALSE(in.ok());

    BusMessage empty = messages_.make("");
    ArgumentReader nothing(empty);
    EXPECT_EQ(nothing.optionalDictionary(), std::nullopt);
    EXPECT_FALSE(nothing.ok());
}

TEST_F(PropertyListCodec, RepairsTextThatDBusCantCarry) {
    BusMessage message = written([&](ArgumentWriter& out) {
        out.dictionary({{"k\xff", "a\xc0\x80z"}});
        out.string(std::string("to\0here", 7));
    });
    ArgumentReader in(message);
    EXPECT_EQ(in.dictionary(), (Dictionary{{"k\ufffd", "a\ufffd\ufffdz"}}));
    EXPECT_EQ(in.string(), "to");
}

}  // namespace
}  // namespace telvora
