// SPDX-License-Identifier: Apache-2.0
#include "plist/property_list_format.h"

#include <gmock/gmock.h>

#include <cmath>
#include <cstdint>
#include <set>

#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

using testing::HasSubstr;
using namespace std::string_literals;

std::string repeated(std::string_view text, size_t times) {
    std::string all;
    for (size_t i = 0; i < times; ++i)
        all += text;
    return all;
}

std::string bigEndian(uint64_t value, size_t bytes) {
    std::string text;
    for (size_t i = bytes; i-- > 0;)
        text.push_back(static_cast<char>(value >> (8 * i)));
    return text;
}

// A binary document of these objects, with two-byte references and four-byte offsets; the first object is the
// top. The header has their true number unless a test sets another.
std::string binary(const std::vector<std::string>& objects, std::optional<uint64_t> count = {},
                   uint64_t top = 0, uint64_t offsetError = 0) {
    std::string document = "bplist00", table;
    for (const std::string& object : objects) {
        table += bigEndian(document.size() + offsetError, 4);
        document += object;
    }
    const uint64_t tableStart = document.size();
    return document + table + "\0\0\0\0\0\0\x04\x02"s + bigEndian(count.value_or(objects.size()), 8) +
           bigEndian(top, 8) + bigEndian(tableStart, 8);
}

std::string reference(uint64_t index) {
    return bigEndian(index, 2);
}

// Each array holds the next one `width` times.
std::string nestedBinary(size_t levels, size_t width) {
    std::vector<std::string> objects;
    for (size_t i = 1; i <= levels; ++i)
        objects.push_back(static_cast<char>(0xa0 + width) + repeated(reference(i), width));
    objects.push_back("\x09");
    return binary(objects);
}

Dictionary everyType() {
    return {{"booleans", Array{true, false}},
            {"integers", Array{-5, INT64_MIN, INT64_MAX, UINT64_MAX, uint64_t{1} << 63}},
            {"reals", Array{0.1, 1e-300, 2.0}},
            {"strings", Array{"a<b>&\"' \xc3\xa9\xf0\x9f\x98\x80\r\n\t ", ""}},
            {"data", Array{Data{"\0\1\2\xff"s}, Data{}}},
            {"dates", Array{Date{1447660800}, Date{64092211200}, Date{-11676096000}}},
            {"array", Array{1, "two", Array{}, Dictionary{}}},
            {"k&y <\xc3\xa9>", Dictionary{{"", 1}}}};
}

class PropertyListFormatTest : public testing::TestWithParam<PropertyListFormat> {};
INSTANTIATE_TEST_SUITE_P(Formats, PropertyListFormatTest,
                         testing::Values(PropertyListFormat::xml, PropertyListFormat::binary),
                         [](const auto& format) {
                             return format.param == PropertyListFormat::xml ? "xml" : "binary";
                         });

TEST_P(PropertyListFormatTest, EveryTypeSurvivesTheRoundTripInsideAndAtTheTop) {
    const std::string document = serializePropertyList(everyType(), GetParam()).value();
    EXPECT_EQ(parsePropertyList(document), PropertyList(everyType()));
    for (const PropertyList& top :
         {PropertyList(true), PropertyList(-5), PropertyList(0.1), PropertyList("text"),
          PropertyList(Data{"\0"s}), PropertyList(Date{1}), PropertyList(Array{1})})
        EXPECT_EQ(parsePropertyList(serializePropertyList(top, GetParam()).value()), top);
    for (const size_t count : {14, 15, 255, 256, 65535, 65536}) {
        const std::string text(count, 'x');
        const PropertyList value = Array{text, text + "\xc3\xa9", Data{text},
                                         Array(count, PropertyList(static_cast<int64_t>(count)))};
        EXPECT_EQ(parsePropertyList(serializePropertyList(value, GetParam()).value()), value) << count;
    }
}

TEST_P(PropertyListFormatTest, NestingIsWrittenAndReadUpToTheSameLimit) {
    PropertyList value = 1;
    for (size_t i = 0; i < kMaxDocumentDepth; ++i)
        value = i % 2 ? PropertyList(Array{value}) : PropertyList(Dictionary{{"k", value}});
    EXPECT_EQ(parsePropertyList(serializePropertyList(value, GetParam()).value()), value);
    EXPECT_EQ(serializePropertyList(Array{value}, GetParam()).error(), "nested more than 64 deep");
}

TEST_P(PropertyListFormatTest, ValuesThatTheFormatCannotHoldAreRefused) {
    const PropertyList hostile[] = {"zero\0byte"s,       "not \xff UTF-8", "surrogate \xed\xa0\x80",
                                    "overlong \xc0\xaf", "cut \xe2\x82",   Dictionary{{"zero\0key"s, 1}},
                                    Date{std::nan("")},  Date{1e300},      Date{-1e12}};
    for (const PropertyList& value : hostile)
        EXPECT_FALSE(serializePropertyList(value, GetParam())) << value.shapeDescription();
    for (const char* text : {"\x01", "\xef\xbf\xbe"})
        EXPECT_EQ(serializePropertyList(text, GetParam()).has_value(),
                  GetParam() == PropertyListFormat::binary);
}

TEST(PropertyListXmlTest, ReadsWhatPeopleWrite) {
    const auto read = parsePropertyList(R"(<?xml version="1.0" encoding="UTF-8"?>
        <!DOCTYPE plist PUBLIC "-//X//DTD PLIST 1.0//EN" "http://example.org/a.dtd">
        <!-- a comment with <array> and "quotes -->
        <plist version="1.0"><dict>
            <key>a</key> <string>x<![CDATA[</array><b>&amp;]]>&#233;&lt;</string>
            <key>b</key> <array ><true/><false /><integer>0x10</integer></array >
            <key>c</key> <data> AA
                EK </data>
            <key>d</key> <date>2015-11-16T08:00:00Z</date>
        </dict></plist>)");
    EXPECT_EQ(read, PropertyList(Dictionary{{"a", "x</array><b>&amp;\xc3\xa9<"},
                                            {"b", Array{true, false, 16}},
                                            {"c", Data{"\0\1\n"s}},
                                            {"d", Date{1447660800}}}));
    // A value with every allowed prologue, in every encoding.
    const std::string text = "<!-- \xc3\xa9 --><plist><string>\xc3\xa9&amp;</string></plist>";
    std::string utf16le = "\xff\xfe", utf16be = "\xfe\xff";
    for (const char16_t unit : u"<plist><string>\u00e9&amp;</string></plist>"s) {
        utf16le.append({static_cast<char>(unit), static_cast<char>(unit >> 8)});
        utf16be.append({static_cast<char>(unit >> 8), static_cast<char>(unit)});
    }
    for (const std::string& document :
         {text, "\xef\xbb\xbf" + text, utf16le, utf16be, "<string>\xc3\xa9&amp;</string>"s,
          "<?xml version='1.0' encoding='ISO-8859-1'?><string>\xe9&#38;</string>"s})
        EXPECT_EQ(parsePropertyList(document), PropertyList("\xc3\xa9&")) << document;
    const std::pair<const char*, PropertyList> values[] = {
        {"<integer> +7 </integer>", 7},
        {"<integer>-0x10</integer>", -16},
        {"<integer>18446744073709551615</integer>", UINT64_MAX},
        {"<integer>-9223372036854775808</integer>", INT64_MIN},
        {"<real>+1e3</real>", 1000.0},
        {"<real>-infinity</real>", -INFINITY},
        {"<date>2016-02-29T23:59:59Z</date>", Date{1456790399}}};
    for (const auto& [document, value] : values)
        EXPECT_EQ(parsePropertyList(document), value) << document;
    for (const char* document :
         {"<integer>-9223372036854775809</integer>", "<integer>1x</integer>", "<integer/>", "<real></real>",
          "<date>2015-02-29T00:00:00Z</date>", "<date>0000-01-01T00:00:00Z</date>",
          "<date>2015-01-01T24:00:00Z</date>", "<data>A</data>", "<true>x</true>"})
        EXPECT_FALSE(parsePropertyList(document)) << document;
}

TEST(PropertyListXmlTest, TakesWhatFitsIntoItsBytesInTimeInProportion) {
    std::string document = "<dict>";
    size_t entries = 0;
    for (char key[32]; document.size() < kMaxDocumentBytes - 64; ++entries) {
        std::snprintf(key, sizeof key, "<key>%07zx</key><true/>", entries);
        document += key;
    }
    const auto read = parsePropertyList(document + "</dict>");
    ASSERT_TRUE(read) << read.error();
    EXPECT_EQ(read->getIf<Dictionary>()->size(), entries);
    const auto entities = parsePropertyList("<string>" + repeated("&amp;", 3000000) + "</string>");
    ASSERT_TRUE(entities) << entities.error();
    EXPECT_EQ(entities->getIf<std::string>()->size(), 3000000u);
}

TEST(PropertyListHostileTest, IsRefusedWithAReason) {
    const std::string deep = repeated("<array>", 100000), plist = "<plist>";
    const size_t many = kMaxDocumentValues + 1;
    const std::pair<const char*, std::vector<std::string>> documents[] = {
        {"not a property list",
         {"", "hello", R"({"a": 1})", "<plist a=\"><!--\">" + deep + "-->", "<?x \"?><!--\"?>" + deep}},
        {"16 MiB", {std::string(kMaxDocumentBytes + 1, ' ')}},
        {"deep",
         {plist + deep, plist + repeated("<dict\t><key>k</key>", 70),
          plist + repeated("<array><!--</array>-->", 70),
          plist + repeated("<array><string><![CDATA[</array>]]></string>", 70)}},
        {"malformed",
         {plist + repeated("<array a=\">\"/>\">", 70), "<plist><!-- ", "<plist><array",
          "<plist><array></dict></plist>", "<plist><dict><true/></dict></plist>",
          "<plist><dict><key>k</key></dict></plist>", "<plist><dict><key>k</key><key>l</key></dict></plist>",
          "<plist><array>x</array></plist>", "<plist><true/><true/></plist>", "<plist/>",
          "<plist><plist/></plist>", "<key>k</key>", "<string><true/></string>", "<string>\xff</string>",
          "<string>&#0;</string>"}},
        {"internal subset", {"<!DOCTYPE p [<!ENTITY a \"b\">]><string>&a;</string>"}},
        {"unknown entity", {"<!DOCTYPE p SYSTEM \"p.dtd\"><string>a&b;</string>"}},
        {"element of unknown type", {"<plist><set></set></plist>"}},
        {"values", {"<plist><array>" + repeated("<true/>", many)}},
        {"UTF-8", {binary({"\x51\xff"}), binary({"\x61\xd8\0"s})}},

        {"truncated", {"bplist00"}},
        // The last two are an array in itself and a cycle.
        {"deep",
         {nestedBinary(65, 1), binary({"\xa1" + reference(0)}),
          binary({"\xa1" + reference(1), "\xd1" + reference(2) + reference(0), "\x51k"})}},
        {"values", {nestedBinary(60, 14), binary({"\xaf\x13\xff\xff\xff\xff\xff\xff\xff\xff"})}},
        // The top, an element, the table, no objects, and offsets before and behind the objects.
        {"out of bounds",
         {binary({"\x09"}, 1, 7), binary({"\xa1" + reference(9)}), binary({"\x09"}, uint64_t{1} << 60),
          binary({}, 0), binary({"\x09"}, 1, 0, uint64_t(-1)), binary({"\x09"}, 1, 0, 1)}},
        // Strings in ASCII and UTF-16, lengths, an array and an integer that reach past the end.
        {"out of bounds",
         {binary({"\x5f\x13\x7f\xff\xff\xff\xff\xff\xff\xff"}), binary({"\x6f\x13\x80\0\0\0\0\0\0\0"s}),
          binary({"\x5f\x13"}), binary({"\x5f\x09"}), binary({"\xaf\x12\0\x01\0\0"s}), binary({"\x13\x01"})}},
        {"unknown size", {binary({"\x15" + std::string(32, 'x')}), binary({"\x21\1\1"})}},
        {"out of range", {binary({"\x14" + std::string(16, '\1')})}},
        {"without a value", {binary({"\0"s})}},
        {"UID", {binary({"\x80\x01"})}},
        {"unknown type", {binary({"\xc1" + reference(1), "\x09"})}},
        {"no string", {binary({"\xd1" + reference(1) + reference(1), "\x10\x01"})}},
        {"zero byte",
         {binary({"\x52\x61\0"s}), binary({"\x61\0\0"s}),
          binary({"\xd1" + reference(1) + reference(2), "\x62\0k\0\0"s, "\x09"})}},
        {"date", {binary({"\x33\x7f\xf8\0\0\0\0\0\0"s})}},
        {"values of more than 16 MiB",
         {binary({"\xaf\x11\x40\0"s + repeated(reference(1), 1 << 14),
                  "\x5f\x12\0\x10\0\0"s + std::string(1 << 20, 'x')})}},
    };
    const std::set<std::string_view> limits{"deep", "16 MiB", "values", "values of more than 16 MiB"};
    for (const auto& [reason, refused] : documents) {
        for (const std::string& document : refused) {
            SCOPED_TRACE(testing::PrintToString(document.substr(0, 100)));
            const auto read = parsePropertyList(document);
            ASSERT_FALSE(read);
            EXPECT_THAT(read.error(), HasSubstr(reason));
            EXPECT_EQ(exceedsPropertyListLimit(read.error()), limits.contains(reason));
        }
    }
}

TEST(PropertyListFileTest, IsReadInEitherFormatAndFailsWithAReason) {
    const test::TemporaryDirectory directory;
    const auto xml = directory.write("a.plist", "<plist><integer>7</integer></plist>");
    EXPECT_EQ(readPropertyListFile(xml), PropertyList(7));
    const auto bytes = serializePropertyList(7, PropertyListFormat::binary).value();
    EXPECT_EQ(readPropertyListFile(directory.write("b.plist", bytes)), PropertyList(7));
    EXPECT_EQ(readPropertyListFile(directory.path() / "none").error(),
              "can't be opened: No such file or directory");
    EXPECT_FALSE(readPropertyListFile(directory.path()));
    EXPECT_EQ(readPropertyListFile("/dev/zero").error(), "not a regular file");
    const auto tooLong = directory.write("long", std::string(kMaxDocumentBytes + 1, ' '));
    EXPECT_EQ(readPropertyListFile(tooLong).error(), "longer than 16 MiB");
}

}  // namespace
}  // namespace telvora
