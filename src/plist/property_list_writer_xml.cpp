// SPDX-License-Identifier: Apache-2.0
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "plist/property_list_writer.h"
#include "util/base64.h"

namespace telvora {

namespace {

// Whether the text has a character that XML 1.0 excludes (section 2.2).
bool hasForbiddenCharacter(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<uint8_t>(text[i]);
        if (byte < ' ' && byte != '\t' && byte != '\n' && byte != '\r') return true;
        // U+FFFE and U+FFFF.
        if (byte == 0xef && (text.substr(i, 3) == "\xef\xbf\xbe" || text.substr(i, 3) == "\xef\xbf\xbf"))
            return true;
    }
    return false;
}

struct XmlWriter {
    std::string document = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
    size_t depth = 0;
    const char* error = nullptr;

    void write(const PropertyList& value) {
        document.append(depth, '\t');
        std::visit(*this, value.value());
        document.push_back('\n');
    }

    void operator()(bool value) { document += value ? "<true/>" : "<false/>"; }
    void operator()(int64_t value) { putElement("integer", std::to_string(value)); }
    void operator()(uint64_t value) { putElement("integer", std::to_string(value)); }
    void operator()(double value) {
        char text[32];
        putElement("real", {text, std::to_chars(text, text + sizeof text, value).ptr});
    }
    void operator()(const std::string& value) { putElement("string", value); }
    void operator()(const Data& value) { putElement("data", base64Encode(value.bytes)); }
    void operator()(const Date& value) {
        using namespace std::chrono;
        const sys_seconds time{seconds(static_cast<int64_t>(std::floor(value.seconds)))};
        const year_month_day day(floor<days>(time));
        const hh_mm_ss clock(time - floor<days>(time));
        char text[64];
        std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(day.year()),
                      static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()),
                      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                      static_cast<int>(clock.seconds().count()));
        putElement("date", text);
    }
    void operator()(const Array& array) {
        if (array.empty()) return void(document += "<array/>");
        document += "<array>\n";
        ++depth;
        for (const PropertyList& element : array)
            write(element);
        close("</array>");
    }
    void operator()(const Dictionary& dictionary) {
        if (dictionary.empty()) return void(document += "<dict/>");
        document += "<dict>\n";
        ++depth;
        for (const auto& [key, value] : dictionary) {
            document.append(depth, '\t');
            putElement("key", key);
            document.push_back('\n');
            write(value);
        }
        close("</dict>");
    }

    void close(const char* tag) {
        document.append(--depth, '\t');
        document += tag;
    }

    void putElement(const char* name, std::string_view text) {
        if (hasForbiddenCharacter(text)) error = "a string with control characters, which XML can't hold";
        document.append("<").append(name).append(">");
        for (const char c : text) {
            switch (c) {
                case '&':
                    document += "&amp;";
                    break;
                case '<':
                    document += "&lt;";
                    break;
                case '>':
                    document += "&gt;";
                    break;
                case '\r':  // readers change a bare one to a line feed
                    document += "&#13;";
                    break;
                default:
                    document.push_back(c);
            }
        }
        document.append("</").append(name).append(">");
    }
};

}  // namespace

tl::expected<std::string, std::string> writeXmlPropertyList(const PropertyList& value) {
    XmlWriter writer;
    writer.write(value);
    if (writer.error != nullptr) return tl::make_unexpected(writer.error);
    writer.document += "</plist>\n";
    return std::move(writer.document);
}

}  // namespace telvora
