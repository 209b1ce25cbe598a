// SPDX-License-Identifier: Apache-2.0
#include "script.h"

#include "platform/digest.h"

namespace telvora::demo {
namespace {

constexpr char kEvents[] = "/events";
constexpr char kRealtime[] = "/realtime";
constexpr char kNowhere[] = "";

Dictionary clientEntry(const std::string& name, double samplingThreshold) {
    return {{"client", name},
            {"service", "demo"},
            {"post_url", "@events@"},
            {"realtime_post_url", "@realtime@"},
            {"locale_whitelist", "US"},
            {"filters", Array{Dictionary{{"key", "street"}, {"action", "remove"}},
                              Dictionary{{"key", "account"}, {"action", "sha256"}},
                              Dictionary{{"key", "jitter"}, {"action", "remove"}, {"method", 2}}}},
            {"event_blacklist", Array{9}},
            {"event_threshold", 49},
            {"sampling_threshold", samplingThreshold},
            {"override_sampling", 1.0}};
}

Report startMessage(const std::string& client, const std::string& path) {
    return {client, 0,  0,    "start, by the daemon",
            0,      {}, path, {{"AutomaticTimeSet", true}, {"Locale", "US"}}};
}

Report finishMessage(const std::string& client) {
    return {client, 0, 2, "finish, by the daemon", 0, {}, kEvents, {}};
}

Report endMessage(const std::string& client, bool batched, double samplingThreshold) {
    return {client,
            0,
            1,
            "end, by the daemon",
            0,
            {},
            kEvents,
            {{"StorebagVersion", "demo-1"},
             {"Opt", 0},
             {"SamplingThreshold", samplingThreshold},
             {"OverrideSampling", batched ? PropertyList(-1) : PropertyList(1.0)},
             {"Batch", batched ? 1 : 0}}};
}

// A report that must arrive as it was sent.
Report untouched(const std::string& client, uint16_t category, uint16_t type, const std::string& manner,
                 int64_t flag, const Dictionary& payload, const std::string& path) {
    return {client, category, type, manner, flag, payload, path, payload};
}

std::vector<Report> playersReports() {
    const std::string account = "anna@mail.example";
    return {
        startMessage("player", kEvents),
        untouched("player", 1, 1, "batched", 0, {{"bitrate", 4200}, {"codec", "av1"}}, kEvents),
        untouched("player", 1, 2, "batched", 0, {{"stalls", 2}, {"seconds", 1.5}}, kEvents),
        {"player",
         2,
         1,
         "filtered",
         0,
         {{"account", account}, {"street", "Seeweg 4"}, {"jitter", 12}, {"live", true}},
         kEvents,
         {{"account", sha256Hex(account)}, {"live", true}}},
        untouched("player", 1, 3, "batched", 0, {{"jitter", 11}}, kEvents),
        untouched("player", 9, 1, "blacklisted", 0, {{"debug", 1}}, kNowhere),
        untouched("player", 3, 1, "realtime", 1, {{"error", "decoder stalled"}}, kRealtime),
        untouched("player", 1, 1, "batched", 0, {{"bitrate", 900}, {"codec", "av1"}}, kEvents),
        finishMessage("player"),
        endMessage("player", true, 1.0),
    };
}

std::vector<Report> browsersReports() {
    return {
        startMessage("browser", kNowhere),
        untouched("browser", 1, 1, "sampled out", 0, {{"page", 1}}, kNowhere),
        untouched("browser", 4, 1, "promoted", 2, {{"crash", "renderer"}}, kEvents),
        untouched("browser", 1, 1, "after promotion", 0, {{"page", 2}}, kEvents),
        finishMessage("browser"),
        endMessage("browser", false, -1.0),
    };
}

std::vector<Report> callsReports(const std::string& client) {
    std::vector<Report> reports{startMessage(client, kEvents)};
    if (client == "call") {
        reports.push_back(untouched(client, 5, 1, "above two others", 0, {{"people", 3}}, kEvents));
    } else {
        reports.push_back(untouched(client, 5, 2, "in a call", 0, {{"bitrate", 64}}, kEvents));
        reports.push_back(untouched(client, 5, 3, "in a call", 0, {{"lost", 0.25}}, kEvents));
    }
    reports.push_back(finishMessage(client));
    reports.push_back(endMessage(client, true, 1.0));
    return reports;
}

}  // namespace

Dictionary demoBag() {
    // Every draw is above a threshold of -1, so that this client is sampled out.
    const Array clients{clientEntry("player", 1.0), clientEntry("browser", -1.0), clientEntry("call", 1.0),
                        clientEntry("audio", 1.0), clientEntry("video", 1.0)};
    return {{"version", "demo-1"},
            {"refresh_cycle", 600},
            {"release", Dictionary{{"httpPost", Dictionary{{"clients", clients}}},
                                   {"uploadServer", Dictionary{{"post_url", "@upload@"}}}}}};
}

std::vector<Report> reportsOf(const std::string& client) {
    if (client == "player") return playersReports();
    return client == "browser" ? browsersReports() : callsReports(client);
}

}  // namespace telvora::demo
