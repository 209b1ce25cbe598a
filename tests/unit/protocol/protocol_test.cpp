// SPDX-License-Identifier: Apache-2.0
//
// Values on the wire, and the tables of methods compared with the contracts as published to authors of
// clients.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <regex>

#include "protocol/client_session_methods.h"
#include "protocol/codec.h"
#include "protocol/method_export.h"
#include "protocol/outgoing_interface.h"
#include "protocol/status_interface.h"
#include "tests/support/bus_messages.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

using test::BusMessages;

class PropertyListCodec : public testing::Test {
  protected:
    // The message that `write` writes, as the other side receives it. Null if it can't be written.
    static std::unique_ptr<test::OwnedMessage> written(const char* signature,
                                                       const std::function<void(ArgumentWriter&)>& write) {
        return BusMessages::written(signature, [&](WireWriter& body) {
            ArgumentWriter out(body);
            write(out);
            return out.ok();
        });
    }

    static void expectCarried(const Dictionary& sent) {
        const auto message = written("a{sv}", [&](ArgumentWriter& out) { out.dictionary(sent); });
        ArgumentReader in(*message);
        EXPECT_EQ(in.dictionary(), sent);
        EXPECT_TRUE(in.ok()) << in.failure();
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
    expectCarried({
        {"booleans", Array{true, false}},
        {"integers", Array{0, INT64_MIN, UINT64_MAX}},
        {"reals", Array{-0.1, INFINITY}},
        {"texts", Array{"", "Grüße, \u4e16\u754c \U0001F30D"}},
        {"data", Array{Data{std::string("\0\xff\x80", 3)}, Data{}}},
        {"date", Date{1447660800.25}},
        {"array", Array{1, "two", 3.5, Array{}, Dictionary{}, Data{"d"}, Date{-1}}},
        {"dictionary", Dictionary{{"", Dictionary{{"k", Array{Array{Array{false}}}}}}}},
    });
}

TEST_F(PropertyListCodec, ReadsEveryIntegerTypeAndTheLastOfEqualKeys) {
    const auto message = messages_.make("ava{sv}", 5, "y", 255, "n", -32768, "q", 65535, "i", INT32_MIN, "u",
                                        UINT32_MAX, 3, "k", "s", "first", "j", "b", 1, "k", "i", 2);
    ArgumentReader in(*message);
    EXPECT_EQ(in.array(), (Array{255, -32768, 65535, INT32_MIN, UINT32_MAX}));
    EXPECT_EQ(in.dictionary(), (Dictionary{{"j", true}, {"k", 2}}));
    EXPECT_TRUE(in.ok()) << in.failure();
}

TEST_F(PropertyListCodec, RefusesTypesThatAreNoPropertyList) {
    const auto refuses = [this](const std::string& type, auto... value) {
        const auto message = messages_.make("a{sv}", 1, "k", type.c_str(), value...);
        ArgumentReader in(*message);
        in.dictionary();
        EXPECT_EQ(in.failure(), "A value of type '" + type + "' has no place in a property list");
    };
    refuses("g", "ss");
    refuses("o", "/a");
    refuses("h", 0);
    refuses("v", "s", "x");
    refuses("as", 1, "x");
    refuses("ai", 0);
    refuses("aav", 0);
    refuses("(dd)", 1.0, 2.0);
    refuses("(i)", 1);
    refuses("a{iv}", 1, 5, "b", 1);
    refuses("a{ss}", 0);
}

TEST_F(PropertyListCodec, RefusesMoreThanOneElementOfAnOptionalValueAndTheFirstFailureSticks) {
    const auto two = messages_.make("aa{sv}s", 2, 0, 0, "next");
    const auto one = messages_.make("ass", 2, "a", "b", "next");
    ArgumentReader dictionaries(*two), strings(*one);
    Codec<std::optional<Dictionary>>::read(dictionaries);
    Codec<std::optional<std::string>>::read(strings);
    for (ArgumentReader* in : {&dictionaries, &strings}) {
        EXPECT_EQ(in->string(), "");
        EXPECT_EQ(in->failure(), "More than one element where one value or nothing is expected");
    }
    for (const bool empty : {false, true}) {
        const auto other = empty ? messages_.make("") : messages_.make("s", "text");
        ArgumentReader in(*other);
        EXPECT_EQ(in.u16(), 0);
        EXPECT_EQ(Codec<std::optional<Dictionary>>::read(in), std::nullopt);
        EXPECT_FALSE(in.ok());
    }
}

TEST_F(PropertyListCodec, BoundsNesting) {
    // Each level of nested() is a dictionary and an array.
    expectCarried(nested(kMaxPropertyListDepth / 2));
    const Dictionary deeper = nested(kMaxPropertyListDepth / 2 + 1);
    EXPECT_FALSE(written("a{sv}", [&deeper](ArgumentWriter& out) { out.dictionary(deeper); }));

    const auto tooDeep = messages_.make([](test::SdBusMessage& body) {
        for (int i = 0; i <= kMaxPropertyListDepth; ++i) {
            ASSERT_GE(body.open('a', "v"), 0);
            ASSERT_GE(body.open('v', "av"), 0);
        }
        ASSERT_GE(body.open('a', "v"), 0);
        for (int i = 0; i < 2 * (kMaxPropertyListDepth + 1) + 1; ++i)
            ASSERT_GE(body.close(), 0);
    });
    ArgumentReader deepIn(*tooDeep);
    deepIn.array();
    EXPECT_EQ(deepIn.failure(), "The property list is nested too deep");
}

TEST_F(PropertyListCodec, RepairsTextThatDBusCantCarry) {
    const auto message = written("a{sv}s", [&](ArgumentWriter& out) {
        out.dictionary({{"k\xff", "a\xc0\x80z"}});
        out.string(std::string("to\0here", 7));
    });
    ArgumentReader in(*message);
    EXPECT_EQ(in.dictionary(), (Dictionary{{"k\ufffd", "a\ufffd\ufffdz"}}));
    EXPECT_EQ(in.string(), "to");
}

// The interface as a contract writes it.
std::string contractOf(const BusInterface& interface) {
    std::string xml = "<interface name=\"" + interface.name() + "\">";
    for (const BusMethod& method : interface.methods()) {
        xml += "<method name=\"" + method.name + "\">";
        for (const auto& [arguments, direction] : {std::pair(method.in, "in"), {method.out, "out"}}) {
            for (const BusArgument& argument : arguments)
                xml += "<arg name=\"" + argument.name + "\" type=\"" + argument.type + "\" direction=\"" +
                       direction + "\"/>";
        }
        xml += "</method>";
    }
    return xml + "</interface>";
}

TEST(WireContractTest, EqualsTheTables) {
    const std::pair<const char*, std::vector<const BusInterface*>> contracts[] = {
        {"com.zandor.telvorad.xml",
         {&busInterface<kClientSessionMethods>(), &busInterface<kSandboxExtensionMethods>(),
          &busInterface<kClientMessageMethods>()}},
        {"com.zandor.telvorad.Status.xml",
         {&busInterface<kStatusMethods>(), &busInterface<kOutgoingMethods>()}}};
    const std::regex layout("<!DOCTYPE[^>]*>|\\s*\n\\s*");
    for (const auto& [name, interfaces] : contracts) {
        std::string expected = "<node name=\"/com/zandor/telvorad\">";
        for (const BusInterface* interface : interfaces)
            expected += contractOf(*interface);
        std::string xml = test::readFile(std::filesystem::path(TELVORA_WIRE_CONTRACTS) / name);
        for (size_t begin; (begin = xml.find("<!--")) != xml.npos;)
            xml.erase(begin, xml.find("-->", begin) + 3 - begin);
        EXPECT_EQ(std::regex_replace(xml, layout, ""), expected + "</node>");
    }
}

}  // namespace
}  // namespace telvora
