// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/follow.h"

#include <fmt/format.h>

#include <ctime>

#include "json/json_reader.h"
#include "telvora-lab/event_json.h"
#include "util/ascii.h"
#include "util/utf8.h"

namespace telvora::lab {
namespace {

constexpr size_t kReadBytes = 1 << 20;
constexpr std::chrono::seconds kWait(3600);
constexpr size_t kMaxValueLength = 200;

std::string text(const Dictionary& dictionary, std::string_view key) {
    const std::string* value = dictionary.string(key);
    return value != nullptr ? escapeControlCharacters(*value) : std::string();
}

int64_t number(const Dictionary& dictionary, std::string_view key) {
    return dictionary.integer(key).value_or(0);
}

std::string localTime(int64_t milliseconds) {
    const time_t seconds = milliseconds / 1000;
    std::tm parts{};
    localtime_r(&seconds, &parts);
    return fmt::format("{:02}:{:02}:{:02}.{:03}", parts.tm_hour, parts.tm_min, parts.tm_sec,
                       milliseconds % 1000);
}

// Cuts between characters.
std::string shortened(std::string value) {
    if (value.size() <= kMaxValueLength) return value;
    size_t end = kMaxValueLength;
    while (end > 0 && (static_cast<unsigned char>(value[end]) & 0xc0) == 0x80)
        --end;
    return value.substr(0, end) + "…";
}

// The client's own fields. Those that the daemon adds begin with "_", but for the time and the user info.
bool isPayload(std::string_view key) {
    return !key.starts_with("_") && !key.starts_with("TelvoraUserInfo") && key != "eventTime";
}

std::string reportText(const Dictionary& event) {
    std::string line = fmt::format("{}/{}", number(event, "_method"), number(event, "_status"));
    for (const auto& [key, value] : event) {
        if (!isPayload(key)) continue;
        line += " " + shortened(escapeControlCharacters(key)) + "=" + shortened(toJson(value, false));
    }
    return line + "\n";
}

// One line for a message with one report; else a line for the message, and one for each report.
std::string messageLines(const Dictionary& record, const Dictionary* body) {
    const Dictionary* headers = record.dictionary("headers");
    const std::string client = headers != nullptr ? text(*headers, "X-TVR-Client-Name") : std::string();
    const int64_t status = number(record, "status");
    std::string lines = fmt::format("{} {}{}", text(record, "path"),
                                    status != 0 ? std::to_string(status) : text(record, "fault"),
                                    client.empty() ? "" : " " + client);
    const Array* events = body != nullptr ? body->array("events") : nullptr;
    const size_t count = events != nullptr ? events->size() : 0;
    if (count != 1) lines += fmt::format(" {} reports\n", count);
    for (size_t i = 0; i < count; ++i) {
        if (const Dictionary* event = (*events)[i].getIf<Dictionary>())
            lines += (count == 1 ? " " : "    ") + reportText(*event);
    }
    if (record.contains("problem")) lines += "    problem: " + text(record, "problem") + "\n";
    return lines;
}

std::string forPeople(const Dictionary& record) {
    const std::string kind = text(record, "kind");
    const std::string time = localTime(number(record, "at")) + " ";
    if (kind == "message") return time + messageLines(record, record.dictionary("body"));
    if (kind == "bagRequest") {
        return time + fmt::format("/bags/{} {}\n", text(record, "name"), number(record, "status"));
    }
    if (kind == "upload" || kind == "logData") {
        return time + fmt::format("/{} {} bytes\n", asciiLowerCase(kind), number(record, "bytes"));
    }
    const PropertyList* report = record.find("report");
    return time + kind + (report != nullptr ? " " + toJson(*report, false) : "") + "\n";
}

std::string asJson(const Dictionary& record) {
    const Dictionary* body = record.dictionary("body");
    const Array* events = body != nullptr ? body->array("events") : nullptr;
    if (events == nullptr) return toJson(record, false) + "\n";
    std::string lines;
    for (const PropertyList& event : *events) {
        Dictionary line{{"event", event}};
        for (const auto& [source, key] : {std::pair{&record, "at"}, std::pair{&record, "path"},
                                          std::pair{&record, "status"}, std::pair{body, "clientId"}}) {
            if (const PropertyList* value = source->find(key)) line.set(key, *value);
        }
        lines += toJson(line, false) + "\n";
    }
    return lines;
}

}  // namespace

std::string describeRecord(std::string_view record, bool json) {
    const auto parsed = parseJson(record);
    const Dictionary* fields = parsed ? parsed->getIf<Dictionary>() : nullptr;
    if (fields == nullptr) return escapeControlCharactersInJson(record) + "\n";  // nested too deep
    return json ? asJson(*fields) : forPeople(*fields);
}

Follower::Follower(Feed& feed, std::ostream& out, bool json, std::function<void()> whenLost)
    : feed_(feed), out_(out), json_(json), whenLost_(std::move(whenLost)), thread_([this] { run(); }) {}

Follower::~Follower() {
    feed_.close();
    thread_.join();
}

void Follower::run() {
    uint64_t next = 1;
    uint64_t seen = 0;
    while (true) {
        const bool last = feed_.closed();
        const Feed::Excerpt excerpt = feed_.read(next, kReadBytes, kWait);
        if (excerpt.reportsBefore > seen) {
            const uint64_t lost = excerpt.reportsBefore - seen;
            out_ << (json_ ? fmt::format("{{\"kind\":\"lost\",\"reports\":{}}}\n", lost)
                           : fmt::format("({} reports are not shown: the output is too slow)\n", lost));
        }
        seen = excerpt.reportsBefore + excerpt.reports;
        next = excerpt.next();
        for (const std::string& record : excerpt.records)
            out_ << describeRecord(record, json_);
        if (!out_.flush()) return whenLost_();
        if (last && excerpt.records.empty()) return;
    }
}

}  // namespace telvora::lab
