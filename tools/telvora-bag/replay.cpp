// SPDX-License-Identifier: Apache-2.0
//
// Recorded reports through a bag. Every report ends posted, handed to the metrics adaptor, or lost for a
// reason: what left the batch was posted if a post went out, else it is lost.
#include <iomanip>
#include <map>
#include <sstream>

#include "backends/https_post_backend.h"
#include "backends/vodex_backend.h"
#include "config/storebag_fetcher.h"
#include "json/report_json.h"
#include "telvora-bag/explain.h"
#include "telvora/keys.h"

namespace telvora::bag {

namespace {

constexpr size_t kMaxLineBytes = size_t{1} << 20;
constexpr char kNotPosted[] = "this backend posts no reports of sessions";

struct Report {
    uint16_t category;
    uint16_t type;
    std::optional<Dictionary> payload;
    SendFlag flag;
};

Report reportOf(const Dictionary& message) {
    const Dictionary* payload = message.dictionary(kTelvoraMessageParametersPayload);
    return {static_cast<uint16_t>(message.integer(kTelvoraMessageParametersCategory).value_or(0)),
            static_cast<uint16_t>(message.integer(kTelvoraMessageParametersType).value_or(0)),
            payload != nullptr ? std::optional(*payload) : std::nullopt,
            static_cast<SendFlag>(message.integer(kTelvoraMessageParametersFlag).value_or(0))};
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
          https_(dynamic_cast<HTTPSPostBackend*>(backend_.get())),
          handsOn_(dynamic_cast<const VodexBackend*>(backend_.get()) != nullptr) {
        trial_.onPost = [this](const Post& post) { note(post); };
        if (backend_) backend_->updateState();
    }

    void offer(const Report& report) {
        trial_.advance(1);
        ++offered_;
        if (!backend_) return lose(1, "the bag makes no such backend");
        if (handsOn_) return;
        if (https_ == nullptr) return lose(1, kNotPosted);
        if (!backend_->isWhitelistedEvent(report.category)) return lose(1, "not on event_whitelist");
        if (backend_->isBlacklistedEvent(report.category)) return lose(1, "on event_blacklist");
        if (backend_->state() == BackendState::disabled) return lose(1, "the backend is disabled");
        account(1, [&] {
            backend_->sendMessage(report.payload, trial_.now(), report.category, report.type, report.flag);
        });
    }

    // The session's last flush.
    void finish() {
        if (https_ == nullptr) return;
        heldAtEnd_ = https_->heldEvents();
        account(0, [this] { backend_->flushMessagesWithCompletion({}); });
    }

    void print(std::ostream& out) const;

  private:
    void note(const Post& post) {
        ++posts_;
        posted_ += post.isBatch ? heldBefore_ : 1;
        json_ += post.json;
        sent_ += post.sent;
    }
    void lose(size_t count, const char* reason) {
        if (count > 0) losses_[reason] += count;
    }
    template <typename Action>
    void account(size_t arriving, Action action) {
        heldBefore_ = https_->heldEvents();
        const size_t postedBefore = posted_;
        action();
        lose(arriving + heldBefore_ - https_->heldEvents() - (posted_ - postedBefore), reasonForLoss());
    }
    const char* reasonForLoss() const {
        switch (backend_->state()) {
            case BackendState::waitingForUserInfo:
                return "held, but user info never came";
            case BackendState::sampledOut:
                return "held, but sampled out to the end";
            default:
                return "there is nowhere to post to";
        }
    }

    FilterCounts filterCounts_;
    Trial trial_;
    const std::shared_ptr<TelvoraBackend> backend_;
    HTTPSPostBackend* const https_;
    const bool handsOn_;  // all reports, to the metrics adaptor
    size_t offered_ = 0;
    size_t heldBefore_ = 0;
    size_t heldAtEnd_ = 0;
    size_t posted_ = 0;
    size_t posts_ = 0;
    size_t json_ = 0;
    size_t sent_ = 0;
    std::map<std::string, size_t> losses_;
};

void BackendReplay::print(std::ostream& out) const {
    if (handsOn_) {
        out << "  " << offered_ << " of " << offered_ << " reports handed to the metrics adaptor\n";
        return;
    }
    out << "  " << posted_ << " of " << offered_ << " reports posted, in " << posts_ << " posts\n";
    if (heldAtEnd_ > 0) out << "  " << heldAtEnd_ << " were held until the last flush\n";
    for (const auto& [reason, count] : losses_)
        out << "  " << count << " dropped: " << reason << '\n';
    if (posts_ > 0) {
        out << "  " << json_ << " bytes of JSON, " << sent_ << " bytes as sent, " << std::fixed
            << std::setprecision(1) << static_cast<double>(sent_) / static_cast<double>(posted_)
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
