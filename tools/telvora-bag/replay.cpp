// SPDX-License-Identifier: Apache-2.0
//
// Recorded reports through a bag; each backend's account says what became of them.
#include <iomanip>
#include <map>
#include <sstream>

#include "backends/event_filters.h"
#include "backends/vodex_backend.h"
#include "config/storebag_fetcher.h"
#include "json/report_json.h"
#include "telvora-bag/explain.h"
#include "telvora/keys.h"

namespace telvora::bag {

namespace {

constexpr size_t kMaxLineBytes = size_t{1} << 20;

// Why reports are at a place, for people.
std::string textOf(ReportPlace place) {
    switch (place) {
        case ReportPlace::notWhitelisted:
            return "not on event_whitelist";
        case ReportPlace::blacklisted:
            return "on event_blacklist";
        case ReportPlace::disabled:
            return "the backend is disabled";
        case ReportPlace::sampledOut:
            return "held, but sampled out to the end";
        case ReportPlace::noUserInfo:
            return "held, but user info never came";
        case ReportPlace::batchFull:
            return "held until the batch was full and could not be sent";
        case ReportPlace::noURL:
            return "there is nowhere to post to";
        case ReportPlace::notSupported:
            return "this backend posts no reports of sessions";
        default:
            return nameOf(place);
    }
}

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

// Counts what filters do to the keys of events.
class FilterCounts final : public DecisionTrace {
  public:
    void decided(const std::string&, Decision, const Dictionary*) override {}
    void filtered(const std::string&, const std::string& key, const EventFilter& filter) override {
        ++counts_[{key, filter.action}];
    }
    const auto& counts() const { return counts_; }

  private:
    std::map<std::pair<std::string, FilterAction>, size_t> counts_;
};

// One backend and what became of the reports that it was offered.
class BackendReplay {
  public:
    BackendReplay(const std::string& name, const PropertyList& profile, const Circumstances& circumstances)
        : trial_(circumstances, filterCounts_),
          backend_(trial_.makeBackend(std::make_shared<const Dictionary>(Dictionary{{name, profile}}))),
          handsOn_(dynamic_cast<const VodexBackend*>(backend_.get()) != nullptr) {
        trial_.onPost = [this](const Post& post) {
            ++posts_;
            json_ += post.json;
            sent_ += post.sent;
        };
        if (backend_) backend_->updateState();
    }

    void offer(const Report& report) {
        trial_.advance(1);
        ++offered_;
        if (!backend_ || handsOn_) return;
        if (const auto excluded = backend_->exclusionOf(report.category, "replay")) {
            return backend_->reports().accept(*excluded);
        }
        backend_->sendMessage(report.payload, trial_.now(), report.category, report.type, report.flag);
    }

    // The session's last flush.
    void finish() {
        if (!backend_) return;
        heldAtEnd_ = backend_->reports().tally()[ReportPlace::held];
        backend_->flushMessagesWithCompletion({});
    }

    void print(std::ostream& out) const;

  private:
    FilterCounts filterCounts_;
    Trial trial_;
    const std::shared_ptr<TelvoraBackend> backend_;
    const bool handsOn_;  // all reports, to the metrics adaptor, of which there is none here
    size_t offered_ = 0;
    uint64_t heldAtEnd_ = 0;
    size_t posts_ = 0;
    size_t json_ = 0;
    size_t sent_ = 0;
};

void BackendReplay::print(std::ostream& out) const {
    if (handsOn_) {
        out << "  " << offered_ << " of " << offered_ << " reports handed to the metrics adaptor\n";
        return;
    }
    const ReportTally tally = backend_ ? backend_->reports().tally() : ReportTally();
    const uint64_t posted = tally[ReportPlace::delivered];
    out << "  " << posted << " of " << offered_ << " reports posted, in " << posts_ << " posts\n";
    if (!backend_) out << "  the bag makes no such backend\n";
    if (heldAtEnd_ > 0) out << "  " << heldAtEnd_ << " were held until the last flush\n";
    for (size_t i = kFirstLoss; i < kReportPlaces; ++i) {
        const auto cause = static_cast<ReportPlace>(i);
        if (tally[cause] > 0) out << "  " << tally[cause] << " dropped: " << textOf(cause) << '\n';
    }
    if (posts_ > 0) {
        out << "  " << json_ << " bytes of JSON, " << sent_ << " bytes as sent, " << std::fixed
            << std::setprecision(1) << static_cast<double>(sent_) / static_cast<double>(posted)
            << " per report\n";
    }
    for (const auto& [keyAndAction, count] : filterCounts_.counts()) {
        out << "  \"" << keyAndAction.first << "\" "
            << (keyAndAction.second == FilterAction::remove ? "removed from " : "hashed in ") << count
            << " reports\n";
    }
}

}  // namespace

tl::expected<std::string, std::string> replayReports(const Dictionary& bag,
                                                     const Circumstances& circumstances,
                                                     std::istream& reports) {
    std::map<std::string, BackendReplay> replays;
    if (const Dictionary* section = sectionForEnvironment(bag, circumstances.environment)) {
        for (const auto& [name, profile] : *section)
            replays.try_emplace(name, name, profile, circumstances);
    }
    size_t number = 0;
    for (std::string line; std::getline(reports, line);) {
        ++number;
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        const auto message = line.size() <= kMaxLineBytes ? messageOfJson(line)
                                                          : tl::unexpected(std::string("longer than 1 MiB"));
        if (!message) return tl::unexpected("line " + std::to_string(number) + ": " + message.error());
        for (auto& [name, replay] : replays)
            replay.offer(reportOf(*message));
    }
    std::ostringstream out;
    for (auto& [name, replay] : replays) {
        replay.finish();
        out << name << '\n';
        replay.print(out);
    }
    return out.str();
}

}  // namespace telvora::bag
