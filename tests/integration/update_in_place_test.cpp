// SPDX-License-Identifier: Apache-2.0
//
// An update in place: several daemons take the socket in turn while clients report. The accounts of both
// sides agree at the end (docs/protocol.md).
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <thread>

#include "telvora/telvora.h"
#include "tests/support/bags.h"
#include "tests/support/daemon_fixture.h"

namespace telvora::test {
namespace {

using Numbers = std::set<int64_t>;

constexpr int kClients = 4;
constexpr int kLives = 4;  // of daemons, one after another
constexpr int kLifeWithAServerThatRejects = 1;
constexpr size_t kAnswersPerLife = 500;  // of each client
constexpr int64_t kMostOnTheWay = 200;

// An application under load, and the outcome of its reports according to the library. Members that callbacks
// write are read after a wait for all answers.
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

    // Reports until told to stop, and pauses while there is no daemon.
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
        static_cast<void>(report.release());  // onAnswer() owns it now
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
    // Last: its destruction ends the callbacks, which use the members above.
    std::unique_ptr<telvora_session, Free<telvora_session_free>> session_;
};

class UpdateInPlace : public DaemonFixture {
  protected:
    void start() {
        startDaemon([](DaemonOptions& options) {
            options.logLevel = 6;
            options.defaults.set("shutdownMilliseconds", std::chrono::milliseconds(kPatience).count());
        });
    }
    // Ends the daemon. Returns the losses that its last line reports.
    size_t endAndAskForLosses() {
        daemon().process().signal(SIGTERM);
        size_t lost = 0, accepted = 0;
        for (const std::string& line : daemon().process().errors().linesToTheEnd(kPatience))
            std::sscanf(line.c_str(), "<4>main: %zu reports lost of %zu accepted", &lost, &accepted);
        awaitDaemonsEnd();
        return lost;
    }
};

TEST_F(UpdateInPlace, LosesWhatBothSidesSayAndNothingElse) {
    Dictionary entry = openClientEntry();
    entry.set("expedite", 0);
    laboratory().setBag("dravik", bagWithClients({entry}));
    std::atomic<bool> daemonRuns = false;
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<std::jthread> threads;
    size_t rejected = 0, lostByDaemons = 0;
    for (int life = 0; life < kLives; ++life) {
        const bool rejects = life == kLifeWithAServerThatRejects;
        reports().setFault(rejects ? lab::ReportingFault::notFound : lab::ReportingFault::none);
        const size_t arrivedBefore = reports().eventCount();
        start();
        daemonRuns = true;
        daemonRuns.notify_all();
        for (int id = 1; life == 0 && id <= kClients; ++id) {
            clients.push_back(std::make_unique<Client>(daemon().socketPath(), id));
            threads.emplace_back([client = clients.back().get(), &daemonRuns](const std::stop_token& stop) {
                client->report(stop, daemonRuns);
            });
        }
        for (const auto& client : clients) {
            const size_t enough = client->answers + kAnswersPerLife;
            for (size_t now; (now = client->answers) < enough;)
                client->answers.wait(now);
        }
        if (life == kLives - 1) threads.clear();
        daemonRuns = false;
        lostByDaemons += endAndAskForLosses();
        if (rejects) rejected = reports().eventCount() - arrivedBefore;
    }

    Numbers arrived, answered;
    for (const Dictionary& event : reports().events()) {
        if (const auto number = event.integer("number")) arrived.insert(*number);
    }
    size_t sent = 0, lostByLibrary = 0;
    for (const auto& client : clients) {
        answered.insert(client->answered.begin(), client->answered.end());
        EXPECT_EQ(client->lostCalls(), client->lost.size());
        lostByLibrary += client->lostCalls();
        sent += client->sent;
    }
    EXPECT_EQ(sent, answered.size() + lostByLibrary);
    EXPECT_TRUE(std::includes(answered.begin(), answered.end(), arrived.begin(), arrived.end()));
    // Each daemon adds a start and an end message for each client.
    EXPECT_EQ(sent + 2 * kClients * kLives,
              lostByLibrary + lostByDaemons + (reports().eventCount() - rejected));
    EXPECT_GE(lostByDaemons, rejected);
}

}  // namespace
}  // namespace telvora::test
