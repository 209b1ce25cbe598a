// SPDX-License-Identifier: Apache-2.0
#include "verdict.h"

#include <unistd.h>

#include <chrono>
#include <thread>

#include "client/status_query.h"
#include "device_answer.h"
#include "protocol/status_keys.h"

namespace telvora::ctl {

namespace {

// Of reports that a backend was never meant to take.
constexpr char kNotSupported[] = "notSupported";

// The session of that number of this process; null if it is not listed.
const Dictionary* sessionIn(const Dictionary& status, int64_t sessionID) {
    const Array* sessions = status.array(status::kSessions);
    for (size_t i = 0; sessions != nullptr && i < sessions->size(); ++i) {
        const auto* session = (*sessions)[i].getIf<Dictionary>();
        const Dictionary* client = session != nullptr ? session->dictionary(status::kClient) : nullptr;
        if (client != nullptr && client->integer(status::kPid) == getpid() &&
            session->integer(status::kSessionID) == sessionID) {
            return session;
        }
    }
    return nullptr;
}

}  // namespace

Verdict::Verdict(const CommonOptions& common, int64_t sessionID, double timeout)
    : socket_(statusSocketBeside(common.socket())), sessionID_(sessionID), timeout_(timeout) {}

void Verdict::begin() {
    before_ = tally();
}

tl::expected<SessionTally, BusQueryFailure> Verdict::tally() const {
    const auto status = queryStatus(kGetStatus, socket_);
    if (!status) return tl::unexpected(status.error());
    SessionTally tally;
    const Dictionary* session = sessionIn(*status, sessionID_);
    const Dictionary* accounts = session != nullptr ? session->dictionary(status::kAccounts) : nullptr;
    for (const auto& [name, value] : accounts != nullptr ? *accounts : Dictionary()) {
        const auto* account = value.getIf<Dictionary>();
        if (account == nullptr) continue;
        tally.inFlight += account->integer(status::kInFlight).value_or(0);
        tally.held += account->integer(status::kHeld).value_or(0);
        tally.delivered += account->integer(status::kDelivered).value_or(0);
        tally.kept += account->integer(status::kKept).value_or(0);
        const Dictionary* lost = account->dictionary(status::kLost);
        for (const auto& [cause, reports] : lost != nullptr ? *lost : Dictionary())
            if (cause != kNotSupported) tally.lost[cause] += reports.integerValue().value_or(0);
    }
    return tally;
}

int Verdict::await(const Printer& print) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kPause{50};
    Progress progress;
    const auto begin = Clock::now();
    for (;;) {
        const auto now = before_ ? tally() : before_;
        if (!now) {
            const Failure failure = failureOf(now.error());
            progress.clear();
            return fail(failure.status, "the server's verdict is not known: " + failure.reason);
        }
        if (now->inFlight == 0) {
            progress.clear();
            return judge(*before_, *now, print);
        }
        const std::chrono::duration<double> elapsed = Clock::now() - begin;
        if (elapsed.count() > timeout_) {
            progress.clear();
            return fail(kNoAnswer, "the server did not answer in time");
        }
        progress.show("waiting for the server, " + std::to_string(static_cast<int>(elapsed.count())) + " s");
        std::this_thread::sleep_for(kPause);
    }
}

int Verdict::judge(const SessionTally& before, const SessionTally& now, const Printer& print) const {
    std::string causes;
    for (const auto& [cause, reports] : now.lost) {
        const auto earlier = before.lost.find(cause);
        if (reports > (earlier != before.lost.end() ? earlier->second : 0))
            causes += (causes.empty() ? "" : ", ") + cause;
    }
    if (causes.empty() && now.held > 0) causes = "held";
    if (causes.empty() && now.kept > before.kept) causes = "kept in the outbox";
    if (causes.empty() && now.delivered == before.delivered) causes = "no backend took it";
    print("verdict", std::optional<std::string>(causes.empty() ? "delivered" : causes));
    return causes.empty() ? kDone : fail(kNotDone, "the report was not delivered: " + causes);
}

}  // namespace telvora::ctl
