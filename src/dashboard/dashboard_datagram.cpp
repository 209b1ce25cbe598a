// SPDX-License-Identifier: Apache-2.0
#include "dashboard/dashboard_datagram.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <vector>

#include "config/client_type.h"
#include "util/utf8.h"

namespace telvora {

namespace {

constexpr uint8_t kHeaderKind = 1;
constexpr int32_t kMicrosecondsPerUnit = 4000;
constexpr int kMillisecondsPerUnit = 4;
constexpr size_t kRenderedBytes = 1152;
// Sign, "0.", the 323 leading zeros of the smallest real, and 17 digits. The largest real has 309 digits.
constexpr size_t kLongestReal = 344;

enum ModeBit : uint16_t { kModeReliable = 1, kModeNoProfile = 2 };

enum Offset : size_t {
    kVersion = 0,
    kComponentType = 1,
    kKind = 2,
    kFraction = 3,
    kSeconds = 4,
    kSessionID = 8,
    kClientVersion = 12,
    kLength = 14,
    kMethod = 16,
    kRespCode = 18,
    kDeviceID = 20,
    kMode = 62
};

// Network byte order.
void put8(char* at, uint8_t value) {
    *at = static_cast<char>(value);
}
void put16(char* at, uint16_t value) {
    put8(at, static_cast<uint8_t>(value >> 8));
    put8(at + 1, static_cast<uint8_t>(value));
}
void put32(char* at, uint32_t value) {
    put16(at, static_cast<uint16_t>(value >> 16));
    put16(at + 2, static_cast<uint16_t>(value));
}

uint8_t get8(const char* at) {
    return static_cast<uint8_t>(*at);
}
uint16_t get16(const char* at) {
    return static_cast<uint16_t>(get8(at) << 8 | get8(at + 1));
}
uint32_t get32(const char* at) {
    return uint32_t{get16(at)} << 16 | get16(at + 2);
}

uint16_t complement16(uint16_t value) {
    return static_cast<uint16_t>(~value);
}

// Fills the header except for the length.
void fillHeader(char* header, const DashboardFields& fields) {
    put8(header + kVersion, fields.version);
    put8(header + kComponentType, fields.componentType);
    put8(header + kKind, kHeaderKind);
    put8(header + kFraction, static_cast<uint8_t>(fields.timestamp.microseconds / kMicrosecondsPerUnit));
    put32(header + kSeconds, static_cast<uint32_t>(fields.timestamp.seconds));
    put32(header + kSessionID, ~fields.sessionID);
    put16(header + kClientVersion, complement16(fields.clientVersion));
    put16(header + kMethod, fields.method);
    put16(header + kRespCode, fields.respCode);
    std::memcpy(header + kDeviceID, fields.deviceID.data(), kDashboardDeviceIDBytes);
    put16(header + kDashboardEventNumberOffset, fields.eventNumber);
    put16(header + kMode, static_cast<uint16_t>((fields.reliable ? kModeReliable : 0) |
                                                (fields.fromProfile ? 0 : kModeNoProfile)));
}

struct Pair {
    const std::string* key;
    std::string value;
    size_t characters;  // of the value
};

// The pairs by the length of their values, shortest first, and then by their keys.
std::vector<Pair> sortedPairs(const Dictionary& payload) {
    std::vector<Pair> pairs;
    pairs.reserve(payload.size());
    for (const auto& [key, object] : payload) {
        std::string value = descriptionForObject(object);
        const size_t characters = utf16Length(value);
        pairs.push_back({&key, std::move(value), characters});
    }
    std::stable_sort(pairs.begin(), pairs.end(),
                     [](const Pair& a, const Pair& b) { return a.characters < b.characters; });
    return pairs;
}

// Appends as many bytes as fit. A zero byte ends the text, as it does for the collector.
void append(DashboardDatagram& datagram, std::string_view text) {
    constexpr size_t kRoom = kDashboardHeaderBytes + kDashboardTextBytes - 1;
    const size_t length = std::min({text.find('\0'), text.size(), kRoom - datagram.length});
    std::memcpy(datagram.buffer.data() + datagram.length, text.data(), length);
    datagram.length += length;
}

}  // namespace

void fillDashboardDatagram(DashboardDatagram& datagram, const DashboardFields& fields,
                           const Dictionary& payload) {
    char* header = datagram.buffer.data();
    fillHeader(header, fields);
    datagram.length = kDashboardHeaderBytes;
    for (const Pair& pair : sortedPairs(payload)) {
        append(datagram, " ");
        append(datagram, *pair.key);
        append(datagram, "=");
        append(datagram, sanitize(pair.value));
    }
    datagram.buffer[datagram.length] = '\0';
    put16(header + kLength, complement16(static_cast<uint16_t>(datagram.length)));
}

std::string renderDashboardDatagram(const DashboardDatagram& datagram) {
    const char* header = datagram.buffer.data();
    const std::string deviceID(header + kDeviceID, kDashboardDeviceIDBytes);
    const std::string sender(senderCodeForClientType(get8(header + kComponentType)));
    char line[kRenderedBytes];
    std::snprintf(line, sizeof line, "%u.%03d %s 127.0.0.1 %s %5u %5u %5u %5u %5u %s",
                  get32(header + kSeconds), get8(header + kFraction) * kMillisecondsPerUnit, deviceID.c_str(),
                  sender.c_str(), complement16(get16(header + kClientVersion)), ~get32(header + kSessionID),
                  get16(header + kDashboardEventNumberOffset), get16(header + kMethod),
                  get16(header + kRespCode), header + kDashboardHeaderBytes);
    return line;
}

std::string descriptionForObject(const PropertyList& object) {
    if (const auto* text = object.getIf<std::string>()) return *text;
    if (const auto* flag = object.getIf<bool>()) return *flag ? "1" : "0";
    if (const auto* number = object.getIf<int64_t>()) return std::to_string(*number);
    if (const auto* number = object.getIf<uint64_t>()) return std::to_string(*number);
    if (const auto* number = object.getIf<double>()) {
        char text[kLongestReal];
        const double real = TelvoradUtil::sanitizeNumber(*number);
        return {text, std::to_chars(text, text + sizeof text, real, std::chars_format::fixed).ptr};
    }
    return "null";
}

std::string sanitize(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (c == '\n') continue;
        if (c == '\\' || c == '=') result.push_back('\\');
        result.push_back(c);
    }
    return result.empty() ? "empty" : result;
}

}  // namespace telvora
