// SPDX-License-Identifier: Apache-2.0
//
// The payloads of the load. Each has the report's number as one of its entries.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <variant>

namespace telvora::bench {

constexpr char kNumberKey[] = "n";  // the key of each report's number, by which a World counts it

struct RecordEntry {
    const char* key;
    std::variant<bool, int64_t, double, const char*> value;
};

// Six entries with the number.
inline constexpr RecordEntry kShortRecord[] = {
    {"codec", "av1"}, {"bitrate", int64_t{4200}}, {"live", true}, {"ratio", 0.75}, {"region", "eu-central"}};

// Ten entries with the number: strings, integers and reals. For comparisons with log forwarders, which get
// the same record.
inline constexpr RecordEntry kPeersRecord[] = {{"host", "device-0042.example.net"},
                                               {"ident", "player"},
                                               {"message", "playback stalled while the buffer was refilled"},
                                               {"codec", "av1"},
                                               {"bitrate", int64_t{4200}},
                                               {"stalls", int64_t{3}},
                                               {"position", int64_t{1834521}},
                                               {"ratio", 0.75},
                                               {"seconds", 12.503}};

}  // namespace telvora::bench
