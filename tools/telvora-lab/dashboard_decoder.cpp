// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/dashboard_decoder.h"

#include <algorithm>
#include <iterator>

namespace telvora::lab {
namespace {

constexpr size_t kHeader = 64;
constexpr size_t kLongest = 1087;

constexpr const char* kComponents[] = {
    "SM", "CN", "NAT",     "TO",    "RS",     "OB",       "VT",     "VC",      "TV",      "FL",
    "SG", "LT", "KESTOVA", "NVCAM", "VT-HLS", "VT-CRABS", "TAMSEL", "CORVANE", "LINDQVAR"};

// Reads integers from the front of a datagram.
class Reader {
  public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    uint64_t integer(size_t width) {
        uint64_t value = 0;
        for (const char byte : bytes(width))
            value = value * 256 + static_cast<unsigned char>(byte);
        return value;
    }
    uint64_t complemented(size_t width) { return ((uint64_t{1} << (8 * width)) - 1) - integer(width); }
    std::string_view bytes(size_t count) {
        const std::string_view taken = rest_.substr(0, count);
        rest_.remove_prefix(count);
        return taken;
    }
    std::string_view rest() const { return rest_; }

  private:
    std::string_view rest_;
};

// The positions of the "=" that separate a key from its value.
std::vector<size_t> separators(std::string_view text) {
    std::vector<size_t> found;
    bool escaped = false;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '=' && !escaped) found.push_back(i);
        escaped = text[i] == '\\' && !escaped;
    }
    return found;
}

std::string unescaped(std::string_view value) {
    std::string result;
    for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '\\' && i + 1 < value.size()) ++i;
        result += value[i];
    }
    return result;
}

}  // namespace

tl::expected<DashboardReport, std::string> decodeDashboardDatagram(std::string_view datagram) {
    const auto wrong = [](const char* what) { return tl::make_unexpected(std::string(what)); };
    if (datagram.size() < kHeader) return wrong("shorter than a header");
    if (datagram.size() > kLongest) return wrong("longer than any datagram");
    Reader reader(datagram);
    DashboardReport report;
    report.version = static_cast<uint8_t>(reader.integer(1));
    report.componentType = static_cast<uint8_t>(reader.integer(1));
    if (reader.integer(1) != 1) return wrong("unknown kind of header");
    const uint64_t fraction = reader.integer(1);
    if (fraction > 249) return wrong("a fraction of more than a second");
    report.time = static_cast<double>(reader.integer(4)) + static_cast<double>(fraction) * 0.004;
    report.session = static_cast<uint32_t>(reader.complemented(4));
    report.clientVersion = static_cast<uint16_t>(reader.complemented(2));
    if (reader.complemented(2) != datagram.size()) return wrong("the length is not the datagram's");
    report.method = static_cast<uint16_t>(reader.integer(2));
    report.responseCode = static_cast<uint16_t>(reader.integer(2));
    const std::string_view device = reader.bytes(40);
    report.device = device.substr(0, device.find('\0'));
    if (device.find_first_not_of('\0', report.device.size()) != std::string_view::npos) {
        return wrong("bytes after the end of the device identifier");
    }
    report.eventNumber = static_cast<uint16_t>(reader.integer(2));
    const uint64_t mode = reader.integer(2);
    if (mode > 3) return wrong("unknown bits in the mode");
    report.wantsAcknowledgement = mode % 2 == 1;
    report.configuredByBag = mode < 2;
    report.text = reader.rest();
    if (report.text.find('\0') != std::string::npos) return wrong("a zero byte in the text");
    if (!report.text.empty() && report.text[0] != ' ') return wrong("the text does not begin with a space");
    return report;
}

std::vector<std::pair<std::string, std::string>> dashboardPairs(std::string_view text) {
    std::vector<std::pair<std::string, std::string>> pairs;
    const std::vector<size_t> ends = separators(text);
    // The key before an "=" begins after the last space before it.
    const auto keyBefore = [text](size_t end) { return text.rfind(' ', end) + 1; };  // npos + 1 is 0
    for (size_t i = 0; i < ends.size(); ++i) {
        const size_t begin = keyBefore(ends[i]);
        const size_t value = ends[i] + 1;
        const size_t valueEnd =
            i + 1 < ends.size() ? std::max(keyBefore(ends[i + 1]), value + 1) - 1 : text.size();
        pairs.emplace_back(text.substr(begin, ends[i] - begin),
                           unescaped(text.substr(value, valueEnd - value)));
    }
    return pairs;
}

std::string acknowledgementFor(std::string_view datagram) {
    return std::string(datagram.substr(0, kHeader));
}

Dictionary describe(const DashboardReport& report) {
    Array pairs;
    for (const auto& [key, value] : dashboardPairs(report.text))
        pairs.push_back(Dictionary{{"key", key}, {"value", value}});
    const bool known = report.componentType < std::size(kComponents);
    return {{"version", report.version},
            {"component", known ? kComponents[report.componentType] : std::to_string(report.componentType)},
            {"time", report.time},
            {"session", report.session},
            {"clientVersion", report.clientVersion},
            {"method", report.method},
            {"responseCode", report.responseCode},
            {"device", report.device},
            {"eventNumber", report.eventNumber},
            {"wantsAcknowledgement", report.wantsAcknowledgement},
            {"configuredByBag", report.configuredByBag},
            {"text", report.text},
            {"pairs", std::move(pairs)}};
}

}  // namespace telvora::lab
