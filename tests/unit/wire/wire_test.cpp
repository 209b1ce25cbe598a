// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <limits>

#include "wire/dbus_names.h"
#include "wire/wire_writer.h"

namespace telvora {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

MessageView callHeader(std::string_view signature) {
    MessageView header;
    header.type = MessageType::methodCall;
    header.serial = 7;
    header.path = "/com/zandor";
    header.interface = "com.zandor.Thing";
    header.member = "Method";
    header.destination = ":1.5";
    header.signature = signature;
    return header;
}

TEST(WireTest, ReadsEveryTypeThatItWrites) {
    const std::string text(300, 'x');
    const auto basic = std::make_tuple(
        uint8_t{255}, true, std::numeric_limits<int16_t>::min(), uint16_t{65535},
        std::numeric_limits<int32_t>::min(), uint32_t{1} << 31, std::numeric_limits<int64_t>::min(),
        std::numeric_limits<uint64_t>::max(), -0.1, std::string_view(text), "/a/b"sv);
    std::string buffer = "a message before this one";
    const size_t start = buffer.size();
    WireWriter writer(buffer, callHeader("ybnqiuxtdsogva(du)avas"));
    std::apply([&writer](auto... value) { (writer.append(value), ...); }, basic);
    writer.appendSignature("a{sv}");
    writer.appendSignature("v");  // a variant in a variant
    writer.appendSignature("s");
    writer.append("inner");
    const auto structures = writer.openArray(8);
    for (const uint32_t i : {1U, 2U}) {
        writer.beginStructure();
        writer.append(0.5);
        writer.append(i);
    }
    writer.closeArray(structures);
    writer.closeArray(writer.openArray(1));
    const auto strings = writer.openArray(4);
    writer.append("\u00e4");
    writer.closeArray(strings);
    ASSERT_TRUE(writer.finish(1 << 20));

    const std::string_view bytes = std::string_view(buffer).substr(start);
    ASSERT_EQ(messageSize(bytes, bytes.size()), bytes.size());
    EXPECT_STREQ(messageSize(bytes, bytes.size() - 1).error(), "a message is too large");
    const auto parsed = parseMessage(bytes, 0);
    ASSERT_TRUE(parsed && *parsed);
    const MessageView& view = **parsed;
    EXPECT_EQ(std::tuple(view.path, view.interface, view.member, view.destination, view.serial),
              std::tuple("/com/zandor", "com.zandor.Thing", "Method", ":1.5", 7U));
    EXPECT_TRUE(view.reader().finish());

    WireReader in = view.reader();
    const auto expect = [&in]<typename T>(T expected) {
        T value{};
        EXPECT_TRUE(in.read(value));
        EXPECT_EQ(value, expected);
    };
    double ofAnotherType = 0;
    EXPECT_FALSE(in.read(ofAnotherType) || in.leave());  // the reader stays where it is
    std::apply([&expect](auto... value) { (expect(value), ...); }, basic);
    expect("a{sv}"sv);
    ASSERT_TRUE(in.enter() && in.enter());
    expect("inner"sv);
    ASSERT_TRUE(in.leave() && in.leave() && in.enter());
    for (const uint32_t i : {1U, 2U}) {
        ASSERT_TRUE(in.enter());
        expect(0.5);
        if (i == 1) expect(i);  // the second is left to leave()
        ASSERT_TRUE(in.leave());
    }
    ASSERT_TRUE(in.atEnd() && in.leave() && in.skip() && in.enter());
    expect("\u00e4"sv);
    ASSERT_TRUE(in.leave() && in.atEnd() && in.finish());
}

TEST(WireTest, NamesTheRuleThatAHeaderViolates) {
    std::string valid, withDescriptors;
    ASSERT_TRUE(WireWriter(valid, callHeader("")).finish(1 << 10));
    // A part of the header, its replacement, and the violation.
    const std::tuple<std::string_view, std::string_view, std::string_view> cases[] = {
        {"\7\0\0\0"sv, "\0\0\0\0"sv, "a message has the serial number 0"},
        {"\3\1s\0"sv, "\2\1s\0"sv, "a header field is there twice"},
        {"\3\1s\0"sv, "\0\1s\0"sv, "a header field has the code 0"},
        {"\3\1s\0"sv, "\x63\1s\0"sv, "a header field is missing"},  // ignored: its code is unknown
        {"zandor.Thing"sv, "zandor..hing"sv, "a name in the header is invalid"},
        {":1.5\0\0\0\0"sv, ":1.5\0\0\0\1"sv, "padding is not zero"}};
    for (const auto& [part, other, violation] : cases) {
        std::string bytes = valid;
        bytes.replace(bytes.find(part), part.size(), other);
        const auto parsed = parseMessage(bytes, 0);
        ASSERT_FALSE(parsed.has_value()) << violation;
        EXPECT_EQ(parsed.error(), violation);
    }
    MessageView header = callHeader("");
    header.descriptors = 2;
    ASSERT_TRUE(WireWriter(withDescriptors, header).finish(1 << 10));
    EXPECT_TRUE(parseMessage(withDescriptors, 2).has_value());
    EXPECT_FALSE(parseMessage(withDescriptors, 1).has_value());
}

TEST(WireTest, ReadsAHeaderOfTheSameFieldsOnce) {
    MessageView header = callHeader("y");
    header.descriptors = 1;
    std::string first;
    WireWriter writer(first, header);
    writer.append(uint8_t{1});
    ASSERT_TRUE(writer.finish(1 << 10));
    const auto previous = parseMessage(first, 1);
    ASSERT_TRUE(previous && *previous);
    // A part of the message, its replacement, and whether the fields are those of the message before.
    const std::tuple<std::string_view, std::string_view, bool> cases[] = {
        {"\7\0\0\0"sv, "\x8\0\0\0"sv, true},
        {"l\1\0\1\1\0\0\0"sv, "l\1\1\1\1\0\0\0"sv, true},
        {"l\1\0\1\1\0\0\0"sv, "l\4\0\1\1\0\0\0"sv, false},
        {"Method"sv, "Nethod"sv, false},
        {":1.5\0\0\0\0"sv, ":1.5\0\0\0\1"sv, false},
        {"\7\0\0\0"sv, "\0\0\0\0"sv, false}};
    for (const auto& [part, other, same] : cases) {
        std::string bytes = first;
        bytes.replace(bytes.find(part), part.size(), other);
        const auto parsed = parseMessage(bytes, 1, &**previous);
        EXPECT_EQ(parsed, parseMessage(bytes, 1));
        EXPECT_EQ(parsed && (*parsed)->path.data() == (*previous)->path.data(), same) << other;
        EXPECT_FALSE(parseMessage(bytes, 0, &**previous)) << "its descriptor is missing";
    }
}

TEST(WireTest, NamesTheRuleThatBytesViolate) {
    const std::string deep = std::string("\1v\0", 3);
    std::string variants;
    for (int i = 0; i < 80; ++i)
        variants += deep;
    const std::tuple<std::string_view, std::string_view, std::string_view> cases[] = {
        {"b", "\2\0\0\0"sv, "a boolean is neither 0 nor 1"},
        {"yu", "\1\0\1\0\0\0\0\0"sv, "padding is not zero"},
        {"s", "\2\0\0\0ab\1"sv, "a text does not end with NUL"},
        {"s", "\2\0\0\0a\0\0"sv, "a text is not UTF-8"},
        {"s", "\2\0\0\0\xc0\x80\0"sv, "a text is not UTF-8"},
        {"s", "\xff\xff\xff\xff"sv, "a value ends beyond its container"},
        {"o", "\2\0\0\0a/\0"sv, "an object path is invalid"},
        {"g", "\1z\0"sv, "a signature is invalid"},
        {"v", "\2ss\0\0"sv, "a variant's signature is not one complete type"},
        {"v", variants, "containers are nested too deeply"},
        {"ai", "\6\0\0\0\1\0\0\0\1\0"sv, "a value ends beyond its container"},
        {"as", "\4\0\0\0\4\0\0\0abcd\0"sv, "a value ends beyond its container"},
        {"ay", "\1\0\0\4"sv, "an array is too long"},
        {"ay", "\5\0\0\0abcd"sv, "an array ends beyond its container"},
        {"y", "ab"sv, "bytes are left after the last value"},
        {"", "a"sv, "bytes are left after the last value"}};
    uint32_t index = 0;
    WireReader descriptor("\1\0\0\0"sv, "h", ByteOrder::little, 1);
    EXPECT_FALSE(descriptor.readDescriptor(index));
    EXPECT_TRUE(descriptor.finish());
    for (const auto& [signature, bytes, violation] : cases) {
        WireReader reader(bytes, signature, ByteOrder::little);
        EXPECT_FALSE(reader.finish());
        ASSERT_NE(reader.violation(), nullptr) << signature;
        EXPECT_EQ(reader.violation(), violation) << signature;
    }
}

TEST(WireTest, KnowsSignaturesAndNames) {
    const std::string deepest = std::string(32, 'a') + "i";
    EXPECT_TRUE(isSignature("a{sv}a(iu)") && isSignature(deepest));
    for (const std::string& text : {"a{vs}"s, "()"s, "(i"s, "a"s, "{ss}"s, "i)"s, "a" + deepest})
        EXPECT_FALSE(isSignature(text)) << text;
    EXPECT_TRUE(isObjectPath("/") && isObjectPath("/a_1") && !isObjectPath("//a") && !isObjectPath("/a/"));
    EXPECT_TRUE(isInterfaceName("a.b1"));
    for (const char* text : {"a", "a..b", "a.1b", "a.b."})
        EXPECT_FALSE(isInterfaceName(text)) << text;
    EXPECT_TRUE(isBusName(":1.5") && isBusName("a-b.c") && !isBusName("1.5") && !isMemberName("a.b"));
}

}  // namespace
}  // namespace telvora
