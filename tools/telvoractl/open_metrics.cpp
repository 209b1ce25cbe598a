// SPDX-License-Identifier: Apache-2.0
#include "open_metrics.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <utility>
#include <vector>

#include "config/client_type.h"
#include "protocol/status_keys.h"
#include "status_reader.h"

namespace telvora::ctl {

namespace {

using Labels = std::vector<std::pair<const char*, std::string>>;

std::string escaped(const std::string& value) {
    std::string result;
    for (const char character : value) {
        if (character == '\\' || character == '"') result += '\\';
        result += character == '\n' ? "\\n" : std::string(1, character);
    }
    return result;
}

// Collects the samples of each family, which stand together in the text.
class Metrics {
  public:
    void gauge(const char* name, const char* help, double value, const Labels& labels = {}) {
        add(name, " gauge", help, value, labels);
    }
    void counter(const char* name, const char* help, double value, const Labels& labels = {}) {
        add(name, nullptr, help, value, labels);
    }
    std::string text() const {
        std::string text;
        for (const auto& [name, family] : families_)
            text += family;
        return text + "# EOF\n";
    }

  private:
    void add(const char* name, const char* type, const char* help, double value, const Labels& labels) {
        std::string& family = families_[name];
        if (family.empty()) {
            family = std::string("# HELP ") + name + " " + help + "\n";
            if (type != nullptr) family += std::string("# TYPE ") + name + type + "\n";
        }
        family += name;
        for (size_t i = 0; i < labels.size(); ++i) {
            family += (i == 0 ? '{' : ',') + (labels[i].first + ("=\"" + escaped(labels[i].second) + "\""));
        }
        char digits[32];
        const auto end = std::to_chars(digits, std::end(digits), value).ptr;
        family += (labels.empty() ? " " : "} ") + std::string(digits, end) + "\n";
    }

    std::map<std::string, std::string> families_;
};

double number(const Dictionary& values, std::string_view key) {
    return values.real(key).value_or(0);
}

double secondsAt(const Dictionary& values, const char* key) {
    const PropertyList* value = values.find(key);
    const auto* date = value != nullptr ? value->getIf<Date>() : nullptr;
    return date != nullptr ? date->seconds : 0;
}

void addDaemon(Metrics& metrics, const Dictionary& status) {
    const Dictionary& daemon = dictionaryIn(status, status::kDaemon);
    metrics.gauge("telvora_build_info", "The version of the daemon.", 1,
                  {{"version", text(daemon, status::kVersion)}});
    metrics.gauge("telvora_start_time_seconds", "Start of the daemon, in seconds since 1970.",
                  secondsAt(daemon, status::kStartTime));
    metrics.gauge("telvora_memory_bytes", "Main memory of the daemon.", number(daemon, status::kMemory));
    metrics.gauge("telvora_http_pending", "HTTP exchanges under way.", number(status, status::kHttpPending));
    const Dictionary& sandbox = dictionaryIn(status, status::kSandbox);
    metrics.gauge("telvora_landlock_abi", "ABI of the kernel's Landlock.",
                  number(sandbox, status::kLandlockAbi));
    for (const auto& [rule, value] : sandbox) {
        if (!value.is<bool>()) continue;
        metrics.gauge("telvora_sandbox_in_force", "1 if the rule of the sandbox is in force.",
                      value.boolValue() ? 1 : 0, {{"rule", rule}});
    }
    for (const auto& [reason, value] : dictionaryIn(status, status::kLink)) {
        metrics.gauge("telvora_reports_held_back", "1 if reports that are not realtime wait for this reason.",
                      value.boolValue() ? 1 : 0, {{"reason", reason}});
    }
    const std::vector<Dictionary> keys = entriesIn(status, status::kPublicKeys);
    metrics.gauge("telvora_public_keys", "Public keys that can verify bags.",
                  static_cast<double>(std::ranges::count_if(
                      keys, [](const Dictionary& key) { return !key.contains(status::kProblem); })));
    const Dictionary& refusals = dictionaryIn(status, status::kRefusals);
    for (const char* cause : {status::kNotEntitled, status::kTooFrequent, status::kOverQuota}) {
        metrics.counter("telvora_connections_refused_total",
                        "Connections that were refused since the daemon's start.", number(refusals, cause),
                        {{"cause", cause}});
    }
}

// The values of a user are summed up: a user is no label, since a service manager makes new ones.
void addUsers(Metrics& metrics, const Dictionary& status) {
    struct Use {
        double held = 0, refused = 0, fullest = 0;
    };
    std::map<std::string, Use> uses;
    const std::vector<Dictionary> users = entriesIn(status, status::kUsers);
    for (const Dictionary& user : users) {
        for (const auto& [quota, value] : dictionaryIn(user, status::kQuotas)) {
            const auto* given = value.getIf<Dictionary>();
            if (given == nullptr) continue;
            Use& use = uses[quota];
            const double held = number(*given, status::kHeld), limit = number(*given, status::kLimit);
            use.held += held;
            use.refused += number(*given, status::kRefused);
            if (limit > 0) use.fullest = std::max(use.fullest, held / limit);
        }
    }
    metrics.gauge("telvora_users", "Users who are connected, or were within about a minute.",
                  static_cast<double>(users.size()));
    for (const auto& [quota, use] : uses) {
        const Labels labels{{"quota", quota}};
        metrics.gauge("telvora_quota_held", "Amount that these users hold of the quota.", use.held, labels);
        metrics.gauge("telvora_quota_refused", "Refusals to these users by the quota.", use.refused, labels);
        metrics.gauge("telvora_quota_fullest_ratio", "Part of the quota that one of these users holds most.",
                      use.fullest, labels);
    }
}

void addSessions(Metrics& metrics, const Dictionary& status) {
    std::map<std::string, double> sessions;
    for (const Dictionary& session : entriesIn(status, status::kSessions)) {
        const bool isKnown = factsOfClientType(session.integer(status::kClientType).value_or(-1)) != nullptr;
        ++sessions[isKnown ? text(session, status::kClientType) : status::kNone];
    }
    sessions.try_emplace(status::kNone);
    for (const auto& [type, count] : sessions)
        metrics.gauge("telvora_sessions", "Connected clients.", count, {{"client_type", type}});
}

void addCounts(Metrics& metrics, const char* name, const char* help, const Dictionary& counts, Labels labels,
               const char* label) {
    for (const auto& [key, value] : counts) {
        Labels all = labels;
        all.emplace_back(label, key);
        metrics.counter(name, help, value.realValue().value_or(0), all);
    }
}

void addAccount(Metrics& metrics, const Dictionary& account, const Labels& labels) {
    metrics.counter("telvora_reports_accepted_total", "Reports that were accepted for the backend.",
                    number(account, status::kAccepted), labels);
    metrics.counter("telvora_reports_delivered_total", "Reports that were delivered.",
                    number(account, status::kDelivered), labels);
    metrics.counter("telvora_reports_kept_total", "Reports that were handed over to the outbox.",
                    number(account, status::kKept), labels);
    metrics.gauge("telvora_reports_held", "Reports in batches, or in the outbox.",
                  number(account, status::kHeld), labels);
    metrics.gauge("telvora_reports_in_flight",
                  "Reports in a backend's hands, or posted and not answered yet.",
                  number(account, status::kInFlight), labels);
    addCounts(metrics, "telvora_reports_lost_total", "Reports that were excluded or lost.",
              dictionaryIn(account, status::kLost), labels, "cause");
    addCounts(metrics, "telvora_reports_disabled_total", "Reports lost by the cause disabled.",
              dictionaryIn(account, status::kDisabledBecause), labels, "reason");
}

void addReports(Metrics& metrics, const Dictionary& status) {
    const Dictionary sums = sumsOfAllRuns(status);
    metrics.gauge("telvora_reports_since_seconds", "Begin of the counts of reports, in seconds since 1970.",
                  secondsAt(sums, status::kSince));
    const Dictionary& clientTypes = dictionaryIn(sums, status::kClientTypes);
    for (const auto& [type, value] : clientTypes) {
        const Dictionary& accounts = dictionaryIn(clientTypes, type);
        for (const auto& [backend, account] : accounts)
            addAccount(metrics, dictionaryIn(accounts, backend),
                       {{"client_type", type}, {"backend", backend}});
    }
}

void addBags(Metrics& metrics, const Dictionary& status) {
    for (const Dictionary& bag : entriesIn(status, status::kBags)) {
        if (!bag.contains(status::kName)) continue;
        const Labels labels{{"bag", text(bag, status::kName)},
                            {"client_type", text(bag, status::kClientType)}};
        metrics.gauge("telvora_bag_age_seconds", "Time since the last attempt to fetch the bag.",
                      number(bag, status::kAge), labels);
        metrics.gauge("telvora_bag_fetched", "1 if the last attempt was successful.",
                      bag.boolean(status::kFetched) ? 1 : 0, labels);
        metrics.gauge("telvora_bag_fresh", "1 if the bag is not older than its server allows.",
                      text(bag, status::kState) == "fresh" ? 1 : 0, labels);
    }
}

void addServers(Metrics& metrics, const Dictionary& status) {
    for (const Dictionary& server : entriesIn(status, status::kServers)) {
        const Labels labels{{"url", text(server, status::kUrl)}};
        metrics.counter("telvora_requests_total", "Requests to the server since the daemon's start.",
                        number(server, status::kRequests), labels);
        metrics.counter("telvora_requests_failed_total",
                        "Requests without an answer, or answered neither 2xx nor 304.",
                        number(server, status::kFailures), labels);
    }
}

}  // namespace

std::string openMetrics(const Dictionary& status) {
    Metrics metrics;
    addDaemon(metrics, status);
    addUsers(metrics, status);
    addSessions(metrics, status);
    addReports(metrics, status);
    addBags(metrics, status);
    addServers(metrics, status);
    return metrics.text();
}

}  // namespace telvora::ctl
