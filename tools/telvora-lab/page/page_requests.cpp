// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/page/page_requests.h"

#include <charconv>

#include "config/client_type.h"
#include "config/storebag_fetcher.h"
#include "json/json_reader.h"
#include "platform/uuid.h"
#include "plist/property_list_format.h"
#include "telvora-bag/documents.h"
#include "telvora-bag/explain.h"
#include "telvora-bag/lint.h"
#include "telvora-lab/event_json.h"
#include "telvora-lab/kept_state.h"
#include "telvora-lab/page/scenario_json.h"

namespace telvora::lab {
namespace {

constexpr size_t kFeedBytes = 4 << 20;
constexpr std::chrono::seconds kFeedWait(10);
constexpr size_t kShownProblems = 20;

template <typename Value>
Array namesOf() {
    Array names;
    for (const auto& [name, value] : namedValues<Value>())
        names.push_back(std::string(name));
    return names;
}

std::string text(const Dictionary& dictionary, std::string_view key) {
    const std::string* value = dictionary.string(key);
    return value != nullptr ? *value : std::string();
}

// Adds the sessions in the order of their display.
void list(Array& sessions, const std::vector<SessionNode>& nodes, int depth) {
    for (const SessionNode& node : nodes) {
        sessions.push_back(Dictionary{{"id", node.sessionID},
                                      {"depth", depth},
                                      {"events", node.events},
                                      {"sender", node.names.sender},
                                      {"client", node.names.client},
                                      {"service", node.names.service},
                                      {"country", node.country},
                                      {"device", node.device}});
        list(sessions, node.children, depth + 1);
    }
}

Array findingsIn(const Dictionary& bag) {
    Array findings;
    for (const bag::Finding& finding : bag::lintBag(bag)) {
        findings.push_back(
            Dictionary{{"path", finding.path},
                       {"severity", finding.severity == bag::Severity::error ? "error" : "warning"},
                       {"text", finding.text}});
    }
    return findings;
}

// The text for an editor: JSON, or XML for a bag with values that JSON can't represent.
std::string editable(const Dictionary& bag) {
    std::string json = toJson(bag, true);
    const auto again = parseJson(json);
    if (again && *again == PropertyList(bag)) return json;
    return serializePropertyList(bag, PropertyListFormat::xml).value_or("");
}

ServerResponse asJson(const tl::expected<Dictionary, std::string>& answer) {
    ServerResponse response;
    response.contentType = "application/json";
    response.status = answer ? 200 : 400;
    response.body = toJson(answer ? *answer : Dictionary{{"error", answer.error()}}, false);
    return response;
}

}  // namespace

PageRequests::PageRequests(Laboratory& laboratory, const Feed& feed, BagKeeper keepBag)
    : laboratory_(laboratory), feed_(feed), keepBag_(std::move(keepBag)), run_(randomUuidString()) {}

ServerResponse PageRequests::answer(const ServerRequest& request) {
    if (request.method == "GET") {
        if (request.path == "/lab/about") return asJson(about());
        if (request.path == "/lab/state") return asJson(state());
        if (request.path == "/lab/feed") return records(request);
        if (request.path == "/lab/bag") return asJson(bag(request));
    } else if (request.method == "POST") {
        const auto body = parseJson(request.body);
        const Dictionary* fields = body ? body->getIf<Dictionary>() : nullptr;
        if (fields == nullptr) return asJson(tl::unexpected(body ? "no object" : body.error()));
        if (request.path == "/lab/fault") return asJson(setFault(*fields));
        if (request.path == "/lab/bag") return asJson(replaceBag(*fields));
        if (request.path == "/lab/explain") return asJson(explain(*fields));
    }
    ServerResponse response;
    response.status = 404;
    return response;
}

Dictionary PageRequests::about() const {
    Array clientTypes;
    for (int number = 0; number <= kLastClientType; ++number) {
        const ClientTypeFacts& facts = *factsOfClientType(number);
        clientTypes.push_back(Dictionary{{"number", number},
                                         {"sender", std::string(facts.senderCode)},
                                         {"bag", std::string(facts.bagName)}});
    }
    Array environments;
    for (const auto type : {EnvironmentType::development, EnvironmentType::zandorInternal,
                            EnvironmentType::seed, EnvironmentType::release})
        environments.push_back(sectionNameForEnvironment(type).value_or(""));
    return {{"run", run_},
            {"addresses", Dictionary{{"bags", laboratory_.bags().baseURL()},
                                     {"events", laboratory_.reports().eventsURL()},
                                     {"realtime", laboratory_.reports().realtimeURL()},
                                     {"log data", laboratory_.logData().url()},
                                     {"uploads", laboratory_.uploads().uploadURL()},
                                     {"dashboard port", int{laboratory_.dashboard().port()}},
                                     {"authority", laboratory_.pki().caFile()},
                                     {"framework", laboratory_.pki().frameworkDirectory()}}},
            {"clientTypes", std::move(clientTypes)},
            {"environments", std::move(environments)},
            {"faults", Dictionary{{"reports", namesOf<ReportingFault>()},
                                  {"bags", namesOf<BagFault>()},
                                  {"logData", namesOf<LogDataFault>()},
                                  {"uploads", namesOf<UploadAnswer>()}}}};
}

Dictionary PageRequests::state() const {
    const ReportingServer& reports = laboratory_.reports();
    Array sessions;
    list(sessions, reports.sessions(), 0);
    Array bags;
    for (const std::string& name : laboratory_.bags().names())
        bags.push_back(
            Dictionary{{"name", name}, {"fault", std::string(nameOf(laboratory_.bags().fault(name)))}});
    std::vector<std::string> problems = reports.problems();
    for (const std::string& problem : laboratory_.logData().problems())
        problems.push_back("log data: " + problem);
    const size_t hidden = problems.size() - std::min(problems.size(), kShownProblems);
    return {{"messages", reports.messageCount()},
            {"reports", reports.eventCount()},
            {"problemCount", problems.size()},
            {"problems", Array(problems.begin() + static_cast<ptrdiff_t>(hidden), problems.end())},
            {"sessions", std::move(sessions)},
            {"faults", Dictionary{{"reports", std::string(nameOf(reports.fault()))},
                                  {"logData", std::string(nameOf(laboratory_.logData().fault()))},
                                  {"uploads", std::string(nameOf(laboratory_.uploads().answer()))}}},
            {"bags", std::move(bags)}};
}

ServerResponse PageRequests::records(const ServerRequest& request) const {
    uint64_t from = 1;
    if (const auto given = request.query.find("from"); given != request.query.end()) {
        const std::string& digits = given->second;
        std::from_chars(digits.data(), digits.data() + digits.size(), from);
    }
    const Feed::Excerpt excerpt = feed_.read(from, kFeedBytes, kFeedWait);
    ServerResponse response;
    // The library compresses JSON, which costs more than all the rest of a request of megabytes.
    response.contentType = "application/octet-stream";
    response.body = "{\"run\":\"" + run_ + "\",\"first\":" + std::to_string(excerpt.first) +
                    ",\"reportsBefore\":" + std::to_string(excerpt.reportsBefore) + ",\"records\":[";
    for (const std::string& record : excerpt.records)
        response.body.append(&record == &excerpt.records.front() ? "" : ",").append(record);
    response.body += "]}";
    return response;
}

PageRequests::Answer PageRequests::setFault(const Dictionary& body) {
    const std::string server = text(body, "server");
    const std::string fault = text(body, "fault");
    const auto unknown = [&] {
        return tl::unexpected("unknown fault \"" + fault + "\" of \"" + server + "\"");
    };
    if (server == "reports") {
        const auto value = valueNamed<ReportingFault>(fault);
        if (!value) return unknown();
        laboratory_.reports().setFault(*value);
        laboratory_.reports().releaseHeld();
    } else if (server == "bags") {
        const auto value = valueNamed<BagFault>(fault);
        const std::string name = text(body, "bag");
        if (!value || !isBagName(name)) return unknown();
        laboratory_.bags().setFault(name, *value);
        laboratory_.bags().releaseHeld();
    } else if (server == "logData") {
        const auto value = valueNamed<LogDataFault>(fault);
        if (!value) return unknown();
        laboratory_.logData().setFault(*value);
    } else {
        const auto value = valueNamed<UploadAnswer>(fault);
        if (!value || server != "uploads") return unknown();
        laboratory_.uploads().setAnswer(*value);
        laboratory_.uploads().releaseHeld();
    }
    return Dictionary();
}

PageRequests::Answer PageRequests::bag(const ServerRequest& request) const {
    const auto name = request.query.find("name");
    const auto content =
        name != request.query.end() && isBagName(name->second) ? laboratory_.bag(name->second) : std::nullopt;
    if (!content) return tl::unexpected(std::string("no such bag"));
    return Dictionary{{"text", editable(*content)},
                      {"findings", findingsIn(laboratory_.filledIn(*content))},
                      {"signed", laboratory_.signs(name->second)}};
}

PageRequests::Answer PageRequests::replaceBag(const Dictionary& body) {
    const std::string name = text(body, "name");
    if (!isBagName(name)) return tl::unexpected("\"" + name + "\" can't be the name of a bag");
    const auto content = bag::parseDictionary(name, text(body, "text"));
    if (!content) return tl::unexpected(content.error());
    const Dictionary served = laboratory_.filledIn(*content);
    if (auto xml = serializePropertyList(served, PropertyListFormat::xml); !xml)
        return tl::unexpected(xml.error());
    if (keepBag_) {
        if (auto kept = keepBag_(name, *content); !kept) return tl::unexpected(kept.error());
    }
    laboratory_.setBag(name, *content);
    return Dictionary{{"findings", findingsIn(served)}};
}

PageRequests::Answer PageRequests::explain(const Dictionary& body) {
    const auto scenario = scenarioOf(body);
    if (!scenario) return tl::unexpected(scenario.error());
    const auto name = bagNameForClientType(scenario->clientType);
    const auto content = name ? laboratory_.bag(*name) : std::nullopt;
    if (!content) {
        return tl::unexpected("client type " + std::to_string(scenario->clientType) +
                              (name ? ": there is no bag \"" + *name + "\"" : " has no bag"));
    }
    const std::lock_guard lock(explanation_);
    return Dictionary{{"text", bag::explainBag(laboratory_.filledIn(*content), *scenario, false)}};
}

}  // namespace telvora::lab
