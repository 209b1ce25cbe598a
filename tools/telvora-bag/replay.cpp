// SPDX-License-Identifier: Apache-2.0
//
// Sends recorded reports through a bag; each backend's account has the outcome.
#include <iomanip>
#include <map>
#include <sstream>

#include "config/storebag_fetcher.h"
#include "json/report_json.h"
#include "telvora-bag/backend_run.h"
#include "telvora-bag/explain.h"
#include "telvora-bag/texts.h"
#include "telvora/keys.h"
#include "util/ascii.h"

namespace telvora::bag {

namespace {

constexpr size_t kMaxLineBytes = size_t{1} << 20;

struct Report {
    uint16_t category;
    uint16_t type;
    std::optional<Dictionary> payload;
    SendFlag flag;
};

Report reportOf(const Dictionary& message) {
    const Dictionary* payload = message.dictionary(kTelvoraMessageParametersPayload);
    return {static_cast<uint16_t>(message.wrappedInteger(kTelvoraMessageParametersCategory).value_or(0)),
            static_cast<uint16_t>(message.wrappedInteger(kTelvoraMessageParametersType).value_or(0)),
            payload != nullptr ? std::optional(*payload) : std::nullopt,
            static_cast<SendFlag>(message.wrappedInteger(kTelvoraMessageParametersFlag).value_or(0))};
}

// One backend, with the outcome of the reports that were submitted to it.
class BackendReplay {
  public:
    BackendReplay(const std::string& name, const PropertyList& profile, const Scenario& scenario)
        : run_(name, profile, scenario), userInfo_(userInfoOf(scenario)) {
        run_.onFiltered = [this](const std::string& key, const EventFilter& filter) {
            ++filtered_[{key, filter.action}];
        };
        run_.onPost = [this](const BackendRun::Post& post) { count(post); };
    }

    void offer(const Report& report) {
        ++offered_;
        run_.send(report.category, report.type, report.payload, report.flag);
    }

    // The session's last flush.
    void finish() {
        heldAtEnd_ = run_.tally()[ReportOutcome::held];
        run_.flush();
    }

    void print(std::ostream& out) const;

  private:
    void count(const BackendRun::Post& post);

    BackendRun run_;
    const Dictionary userInfo_;
    std::map<std::pair<std::string, FilterAction>, size_t> filtered_;
    std::map<std::string, size_t> asGiven_;  // number of posted reports that contain user info unfiltered
    size_t offered_ = 0;
    uint64_t heldAtEnd_ = 0;
    size_t posts_ = 0;
    size_t json_ = 0;
    size_t sent_ = 0;
};

void BackendReplay::count(const BackendRun::Post& post) {
    ++posts_;
    json_ += post.json;
    sent_ += post.sent;
    for (const Dictionary& event : post.events) {
        for (const auto& [key, value] : userInfo_) {
            const PropertyList* left = event.find(key);
            if (left != nullptr && *left == value) ++asGiven_[key];
        }
    }
}

void BackendReplay::print(std::ostream& out) const {
    if (run_.isHandedOn()) {
        out << "  " << offered_ << " of " << offered_ << " reports passed to the metrics adaptor\n";
        return;
    }
    const ReportTally tally = run_.tally();
    const uint64_t posted = tally[ReportOutcome::delivered];
    out << "  " << posted << " of " << offered_ << " reports posted, in " << posts_ << " posts\n";
    if (run_.backend() == nullptr) out << "  the bag makes no such backend\n";
    if (heldAtEnd_ > 0) out << "  " << heldAtEnd_ << " were held until the last flush\n";
    for (size_t i = kFirstLoss; i < kReportOutcomes; ++i) {
        const auto cause = static_cast<ReportOutcome>(i);
        if (tally[cause] > 0) out << "  " << tally[cause] << " dropped: " << reasonOf(cause) << '\n';
    }
    if (posts_ > 0) {
        out << "  " << json_ << " bytes of JSON, " << sent_ << " bytes sent, " << std::fixed
            << std::setprecision(1) << static_cast<double>(sent_) / static_cast<double>(posted)
            << " per report\n";
    }
    for (const auto& [keyAndAction, count] : filtered_) {
        const std::string& key = keyAndAction.first;
        out << "  " << inQuotes(key) << " "
            << (keyAndAction.second == FilterAction::remove ? "removed from " : "hashed in ") << count
            << " reports\n";
        const auto asGiven = asGiven_.find(key);
        if (asGiven == asGiven_.end()) continue;
        out << "    but user info was posted in clear in " << asGiven->second << " reports\n";
    }
}

}  // namespace

tl::expected<std::string, std::string> replayReports(const Dictionary& bag, const Scenario& scenario,
                                                     std::istream& reports) {
    std::map<std::string, BackendReplay> replays;
    const Dictionary* section = sectionForSession(bag, scenario);
    if (section != nullptr) {
        for (const auto& [name, profile] : *section)
            replays.try_emplace(name, name, profile, scenario);
    }
    size_t number = 0;
    for (std::string line; std::getline(reports, line);) {
        ++number;
        if (trimmed(line).empty()) continue;
        const auto message = line.size() <= kMaxLineBytes ? messageOfJson(line)
                                                          : tl::unexpected(std::string("longer than 1 MiB"));
        if (!message) return tl::unexpected("line " + std::to_string(number) + ": " + message.error());
        for (auto& [name, replay] : replays)
            replay.offer(reportOf(*message));
    }
    std::ostringstream out;
    for (auto& [name, replay] : replays) {
        replay.finish();
        out << escapeControlCharacters(name) << '\n';
        replay.print(out);
    }
    return out.str();
}

}  // namespace telvora::bag
