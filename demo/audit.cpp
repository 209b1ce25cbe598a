// SPDX-License-Identifier: Apache-2.0
#include "audit.h"

#include <fmt/format.h>

#include <map>
#include <set>
#include <utility>

#include "telvora-lab/event_json.h"
#include "telvora/keys.h"

namespace telvora::demo {
namespace {

struct Arrival {
    std::string path;
    const Dictionary* event;
    bool taken = false;
};

// The fields of every event, with the value if all events share it.
const std::pair<const char*, std::optional<PropertyList>> kFrame[] = {
    {"_build", "13B143"},
    {"_clientTS", std::nullopt},
    {"_clientVersion", 3},
    {"_eventNumber", std::nullopt},
    {"_internal", 0},
    {"_method", std::nullopt},
    {"_osVersion", "9.1"},
    {"_productFamily", "Labdevice"},
    {"_productModel", "Lab1,1"},
    {"_reportVers", "8.1.2"},
    {"_sender", "TV"},
    {"_sessionID", std::nullopt},
    {"_startTS", std::nullopt},
    {"_status", std::nullopt},
    {"_timezoneOffset", std::nullopt},
    {"eventTime", std::nullopt},
    {kTelvoraUserInfoClientName, std::nullopt},
    {kTelvoraUserInfoServiceName, "demo"},
};

// The event's payload, without the fields above. Sets `fault` if those are wrong.
Dictionary withoutFrame(const Dictionary& event, std::string& fault) {
    Dictionary rest = event;
    for (const auto& [key, value] : kFrame) {
        const PropertyList* found = event.find(key);
        if (!found) {
            fault = std::string(key) + " is missing";
        } else if (value && *found != *value) {
            fault = std::string(key) + " is " + lab::toJson(*found, false);
        }
        rest.erase(key);
    }
    return rest;
}

// JSON has one kind of number: 1.0 arrives as a real or as an integer.
bool sameFields(const Dictionary& left, const Dictionary& right) {
    if (left.size() != right.size()) return false;
    for (const auto& [key, value] : left) {
        const PropertyList* other = right.find(key);
        if (!other) return false;
        if (value != *other && (!value.isNumber() || value.realValue() != other->realValue())) return false;
    }
    return true;
}

bool matches(const Dictionary& event, const Report& report) {
    const std::string* client = event.string(kTelvoraUserInfoClientName);
    return client && *client == report.client && event.integer("_method") == report.category &&
           event.integer("_status") == report.type;
}

// The first candidate with the right fields, else any candidate. Null without candidates.
Arrival* find(std::vector<Arrival>& arrivals, const Report& report) {
    Arrival* candidate = nullptr;
    for (Arrival& arrival : arrivals) {
        if (arrival.taken || !matches(*arrival.event, report)) continue;
        std::string ignored;
        if (sameFields(withoutFrame(*arrival.event, ignored), report.received)) return &arrival;
        if (!candidate) candidate = &arrival;
    }
    return candidate;
}

Finding examine(const Report& report, std::vector<Arrival>& arrivals) {
    Finding finding{&report, {}, {}, {}};
    if (report.path.empty()) return finding;  // an event of this report would be a stray
    Arrival* arrival = find(arrivals, report);
    if (!arrival) {
        finding.fault = "did not arrive";
        return finding;
    }
    arrival->taken = true;
    finding.receivedAt = arrival->path;
    finding.received = withoutFrame(*arrival->event, finding.fault);
    if (arrival->path != report.path) finding.fault = "arrived at the wrong address";
    if (!sameFields(finding.received, report.received)) finding.fault = "arrived with other fields";
    return finding;
}

std::string fields(const Dictionary& dictionary) {
    constexpr size_t kLongest = 17;
    std::string text;
    for (const auto& [key, value] : dictionary) {
        const std::string* string = value.getIf<std::string>();
        std::string shown = string ? *string : lab::toJson(value, false);
        if (shown.size() > kLongest) shown = shown.substr(0, 6) + "...";
        text.append(text.empty() ? "" : " ").append(key).append("=").append(shown);
    }
    return text;
}

}  // namespace

std::vector<Finding> audit(const std::vector<Report>& reports,
                           const std::vector<lab::ReceivedMessage>& messages,
                           std::vector<std::string>& strays) {
    std::vector<Arrival> arrivals;
    std::map<std::string, std::set<int64_t>> numbers;  // by session
    for (const lab::ReceivedMessage& message : messages) {
        for (const Dictionary& event : message.events) {
            arrivals.push_back({message.path, &event});
            const std::string* session = event.string("_sessionID");
            const auto number = event.integer("_eventNumber");
            if (!session || !number || !numbers[*session].insert(*number).second) {
                strays.push_back("an event without a number of its own");
            }
        }
    }
    std::vector<Finding> findings;
    findings.reserve(reports.size());
    for (const Report& report : reports)
        findings.push_back(examine(report, arrivals));
    for (const Arrival& arrival : arrivals) {
        if (!arrival.taken) strays.push_back(arrival.path + " " + lab::toJson(*arrival.event, false));
    }
    return findings;
}

std::string table(const std::vector<Finding>& findings) {
    static constexpr char kRow[] = "{:8} {:4} {:22} {:10} {:4} {}\n";
    std::string text = fmt::format(kRow, "client", "c/t", "manner", "arrived at", "", "");
    for (const auto& [report, receivedAt, received, fault] : findings) {
        const bool byDaemon = report->category == 0;
        const std::string sent = byDaemon ? "" : "sent     " + fields(report->payload);
        const std::string arrived = receivedAt.empty() ? "" : "received " + fields(received);
        text += fmt::format(kRow, report->client, fmt::format("{}/{}", report->category, report->type),
                            report->manner, receivedAt.empty() ? "nowhere" : receivedAt,
                            fault.empty() ? "ok" : "BAD", byDaemon ? arrived : sent);
        if (!byDaemon && !arrived.empty()) text += fmt::format(kRow, "", "", "", "", "", arrived);
    }
    return text;
}

}  // namespace telvora::demo
