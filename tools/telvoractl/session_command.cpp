// SPDX-License-Identifier: Apache-2.0
//
// The reports are pipelined: the next line is sent while earlier ones wait for their answers. Answers come in
// the order of the lines.
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "commands.h"
#include "json.h"
#include "json/report_json.h"

namespace telvora::ctl {

namespace {

constexpr size_t kMaxWaiting = 512;

// Counts calls that wait for their answer, and keeps the first failure.
class Answers {
  public:
    explicit Answers(double timeout) : timeout_(timeout) {}

    // Before a call is made: waits for room. False when no answer came for too long, or a call has failed.
    bool expectOne() {
        std::unique_lock lock(mutex_);
        if (!waitUntil(lock, kMaxWaiting - 1)) return false;
        ++waiting_;
        return true;
    }
    // Waits for all of them; false likewise.
    bool wait() {
        std::unique_lock lock(mutex_);
        return waitUntil(lock, 0);
    }
    // A completion that hands the answer to `use` on success.
    template <typename T, typename Use>
    Completion<T> completion(Use use) {
        return [this, use = std::move(use)](tl::expected<T, CallFailure> answer) {
            if constexpr (std::is_void_v<T>) {
                if (answer) use();
            } else {
                if (answer) use(*answer);
            }
            const std::lock_guard lock(mutex_);
            --waiting_;
            if (!answer && !failure_) failure_ = answer.error();
            changed_.notify_all();
        };
    }
    // Why expectOne() or wait() said no, as an exit status with a line on standard error.
    int report() {
        const std::lock_guard lock(mutex_);
        if (!failure_) return fail(kNoAnswer, "the daemon did not answer");
        const bool lost = failure_->kind == CallFailure::Kind::kConnectionLost;
        return fail(lost ? kDaemonMissing : kNotReported, failure_->message);
    }

  private:
    bool waitUntil(std::unique_lock<std::mutex>& lock, size_t limit) {
        while (waiting_ > limit && !failure_) {
            const size_t before = waiting_;
            const bool moved = changed_.wait_for(lock, std::chrono::duration<double>(timeout_),
                                                 [&] { return waiting_ != before || failure_; });
            if (!moved) return false;
        }
        return !failure_;
    }

    const double timeout_;
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t waiting_ = 0;
    std::optional<CallFailure> failure_;
};

class SessionRun {
  public:
    SessionRun(const SessionOptions& options, ClientSession& session, Answers& answers)
        : options_(options), session_(session), answers_(answers) {}

    int configure() {
        answers_.expectOne();
        session_.setSessionInfo(options_.sessionInfo(), options_.userInfo(), options_.frameworks,
                                answers_.completion<void>([] {}));
        answers_.expectOne();
        session_.startConfig(answers_.completion<ReportingStates>(
            [this](const ReportingStates& answer) { states_ = answer; }));
        if (!answers_.wait()) return answers_.report();
        printLine("reportingStates", states_);
        return states_ ? kDone : fail(kNotReported, "the daemon has no configuration for this client type");
    }

    int reportLines(std::istream& input) {
        std::string line;
        for (size_t number = 1; std::getline(input, line); ++number) {
            if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
            auto message = messageOfJson(line);
            if (!message) {
                answers_.wait();  // those before it were sent, and have their answers printed
                return fail(kBadInput, "line " + std::to_string(number) + ": " + message.error());
            }
            if (!answers_.expectOne()) return answers_.report();
            session_.sendMessage(std::move(*message),
                                 answers_.completion<std::optional<std::string>>(
                                     [](const auto& answer) { printLine("answer", answer); }));
        }
        return answers_.wait() ? kDone : answers_.report();
    }

    int finish() {
        answers_.expectOne();
        session_.flushMessages(
            answers_.completion<FlushAnswer>([](const auto& answer) { printLine("flush", answer); }));
        if (!answers_.wait()) return answers_.report();
        answers_.expectOne();
        session_.finishSession(answers_.completion<std::optional<std::string>>(
            [](const auto& answer) { printLine("finish", answer); }));
        return answers_.wait() ? kDone : answers_.report();
    }

  private:
    const SessionOptions& options_;
    ClientSession& session_;
    Answers& answers_;
    ReportingStates states_;
};

}  // namespace

int runSession(const SessionOptions& options, std::istream& input) {
    Answers answers(options.timeout);  // outlives the runtime, whose thread uses it to the last
    std::optional<SessionRun> run;     // likewise
    ClientRuntime runtime;
    ClientSession::Handlers handlers;
    if (options.aggregate) {
        handlers.aggregationBlock = [](const AggregatedMessage& message) {
            printLine("aggregated", message);
        };
    }
    const auto session = ClientSession::connect(runtime, options.socketPath, std::move(handlers));
    if (!session) return fail(kDaemonMissing, session.error());

    run.emplace(options, **session, answers);
    int status = run->configure();
    if (status != kDone) return status;
    status = run->reportLines(input);
    if (status != kDone && status != kBadInput) return status;
    const int finished = run->finish();  // what was reported before a bad line is not lost for it
    return status != kDone ? status : finished;
}

}  // namespace telvora::ctl
