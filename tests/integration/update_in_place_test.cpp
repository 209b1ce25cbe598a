// SPDX-License-Identifier: Apache-2.0
//
// An update in place: one daemon after another takes the socket while clients report. That the books of both
// sides agree then: docs/protocol.md says what that means.
#include <gmock/gmock.h>

#include <set>
#include <thread>

#include "telvora-lab/bags.h"
#include "telvora/telvora.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using lab::kPatience;
using Numbers = std::set<int64_t>;

constexpr int kClients = 4;
constexpr int kUpdates = 3;
constexpr size_t kAnswersBetweenUpdates = 500;  // of each client
constexpr int64_t kMostOnTheWay = 200;

// An application under load, and what the library told it of its reports. What callbacks write is read after
// a wait for all answers.
class Client {
  public:
    Client(const std::string& socketPath, int64_t id) : next_(id << 32) {
        telvora_session_options options = {};
        options.size = sizeof options;
        options.socket_path = socketPath.c_str();
        session_.reset(telvora_session_new(&options));
        const Value info(telvora_dictionary_new());
        telvora_set_int(info.get(), kTelvoraSessionInfoClientType, 8);
        telvora_set_int(info.get(), kTelvoraSessionInfoSessionID, id);
        telvora_session_set_info(session_.get(), info.get(), nullptr, nullptr, 0, nullptr, nullptr);
        telvora_session_start(session_.get(), nullptr, nullptr);
        wait();
    }

    // Reports until told to stop, and sleeps as long as there is no daemon.
    void report(const std::stop_token& stop, const std::atomic<bool>& daemonRuns) {
        while (!stop.stop_requested()) {
            const telvora_status status = send(next_++);
            if (status == TELVORA_OK && next_ % kMostOnTheWay != 0) continue;
            if (status == TELVORA_OK) wait();
            daemonRuns.wait(false);
            std::this_thread::yield();  // the library tries once a second
        }
        wait();
    }
    uint64_t lostCalls() const { return telvora_session_lost_calls(session_.get()); }

    size_t sent = 0;
    std::atomic<size_t> answers = 0;
    Numbers answered, lost;

  private:
    template <auto destroy>
    struct Free {
        template <typename Handle>
        void operator()(Handle* handle) const {
            destroy(handle);
        }
    };
    using Value = std::unique_ptr<telvora_value, Free<telvora_value_free>>;
    struct Report {
        Client* client;
        int64_t number;
    };

    telvora_status send(int64_t number) {
        const Value payload(telvora_dictionary_new());
        telvora_set_int(payload.get(), "number", number);
        auto report = std::make_unique<Report>(Report{this, number});
        const telvora_status status =
            telvora_session_send(session_.get(), 5, 6, payload.get(), onAnswer, report.get());
        if (status != TELVORA_OK) return status;
        static_cast<void>(report.release());  // onAnswer()'s
        ++sent;
        return status;
    }
    static void onAnswer(void* context, const telvora_answer* answer) {
        const std::unique_ptr<Report> report(static_cast<Report*>(context));
        Client& client = *report->client;
        const bool ok = telvora_answer_status(answer) == TELVORA_OK;
        (ok ? client.answered : client.lost).insert(report->number);
        if (!ok) return;
        ++client.answers;
        client.answers.notify_all();
    }
    void wait() { telvora_session_wait(session_.get(), std::chrono::milliseconds(kPatience).count()); }

    int64_t next_;
    std::unique_ptr<telvora_session, Free<telvora_session_free>> session_;  // first to go: it calls back
};

using UpdateInPlace = DaemonFixture;

TEST_F(UpdateInPlace, LosesWhatBothSidesSayAndNothingElse) {
    Dictionary entry = lab::openClientEntry();
    entry.set("expedite", 0);
    laboratory().setBag("dravik", lab::bagWithClients({entry}));
    const auto options = [](lab::DaemonOptions& daemon) {
        daemon.logLevel = 6;
        daemon.defaults.set("shutdownMilliseconds", std::chrono::milliseconds(kPatience).count());
    };
    startDaemon(options);
    const auto endDaemon = [this] {
        EXPECT_EQ(daemon().stop(), 0);
        for (const std::string& line : daemon().logLines())
            EXPECT_GE(line, "<5>");  // no warning: nothing that was answered is lost
    };
    std::atomic<bool> daemonRuns = true;
    std::vector<std::unique_ptr<Client>> clients;
    for (int id = 1; id <= kClients; ++id)
        clients.push_back(std::make_unique<Client>(daemon().socketPath(), id));
    std::vector<std::jthread> threads;
    for (const auto& client : clients)
        threads.emplace_back([&](const std::stop_token& stop) { client->report(stop, daemonRuns); });

    for (int update = 0; update <= kUpdates; ++update) {
        for (const auto& client : clients) {
            const size_t enough = client->answers + kAnswersBetweenUpdates;
            for (size_t now; (now = client->answers) < enough;)
                client->answers.wait(now);
        }
        if (update == kUpdates) break;
        daemonRuns = false;
        endDaemon();
        startDaemon(options);
        daemonRuns = true;
        daemonRuns.notify_all();
    }
    threads.clear();
    endDaemon();

    Numbers arrived, answered;
    for (const Dictionary& event : reports().events()) {
        if (const auto number = event.integer("number")) arrived.insert(*number);
    }
    size_t sent = 0, lost = 0;
    for (const auto& client : clients) {
        answered.insert(client->answered.begin(), client->answered.end());
        EXPECT_EQ(client->lostCalls(), client->lost.size());
        lost += client->lostCalls();
        sent += client->sent;
    }
    EXPECT_EQ(sent, arrived.size() + lost);
    EXPECT_TRUE(arrived == answered);
}

}  // namespace
}  // namespace telvora::test
