// SPDX-License-Identifier: Apache-2.0
//
// libtelvora as applications use it, the shared library through its C interface, with the real daemon: every
// operation, and the loss of the daemon, of rights or of the process.
#include <sys/wait.h>

#include <cstdio>
#include <mutex>
#include <thread>

#include "telvora/telvora.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/forked_child.h"

namespace telvora::test {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

constexpr int64_t kPatienceMs = std::chrono::milliseconds(kPatience).count();

using Notes = std::vector<std::string>;

void noteAnswer(void* context, const telvora_answer* answer) {
    std::string note = telvora_status_text(telvora_answer_status(answer));
    const telvora_value* value = telvora_answer_value(answer);
    const telvora_value* last = telvora_value_at(value, telvora_value_count(value) - 1);
    for (const telvora_value* one : {value, last}) {
        if (const char* text = telvora_value_string(one)) note = text;
    }
    if (value != nullptr && telvora_value_type(value) == TELVORA_TYPE_BOOL)
        note = telvora_value_bool(value) ? "true" : "false";
    const char* description = nullptr;
    int32_t code = 0;
    if (telvora_answer_error(answer, nullptr, &code, &description))
        note += " " + std::to_string(code) + " " + description;
    static_cast<Notes*>(context)->push_back(note);
}

class Libtelvora : public DaemonFixture {
  protected:
    Libtelvora() {
        laboratory().setBag("dravik", openBag({{"uploadServer", Dictionary{{"post_url", "@upload@"}}}}));
        telvora_set_int(info_, kTelvoraSessionInfoClientType, 8);
        telvora_set_int(info_, kTelvoraSessionInfoSessionID, 7);
        telvora_set_string(payload_, "fruit", "quince");
    }
    void TearDown() override {
        telvora_session_free(session_);
        telvora_value_free(info_);
        telvora_value_free(payload_);
        DaemonFixture::TearDown();
    }
    telvora_session* open(const std::string& path) {
        telvora_session_options options = {};
        options.size = sizeof options;
        options.socket_path = path.c_str();
        options.on_message = [](void* test, const telvora_value*, double, uint16_t category, uint16_t type,
                                const telvora_value*) {
            static_cast<Libtelvora*>(test)->note("message " + std::to_string(category) + "/" +
                                                 std::to_string(type));
        };
        options.on_connection = [](void* test, telvora_connection_event event, uint64_t lost, const char*) {
            static_cast<Libtelvora*>(test)->note((event == TELVORA_CONNECTION_LOST ? "lost " : "restored ") +
                                                 std::to_string(lost));
        };
        options.message_context = options.connection_context = this;
        return telvora_session_new(&options);
    }
    // A configured session.
    void configure() {
        session_ = open(daemon().socketPath());
        telvora_session_set_info(session_, info_, nullptr, nullptr, 0, nullptr, nullptr);
        telvora_session_start(session_, nullptr, nullptr);
        ASSERT_EQ(telvora_session_wait(session_, kPatienceMs), TELVORA_OK);
        takeEvents();
    }
    // The events of handlers, which run without a wait if the session reconnects by itself.
    void note(std::string event) {
        const std::scoped_lock lock(lock_);
        events_.push_back(std::move(event));
    }
    Notes takeEvents() {
        const std::scoped_lock lock(lock_);
        return std::exchange(events_, {});
    }
    telvora_status send() { return telvora_session_send(session_, 5, 6, payload_, nullptr, nullptr); }
    telvora_status flushAndWait() {
        telvora_session_flush(session_, nullptr, nullptr);
        return telvora_session_wait(session_, kPatienceMs);
    }

    telvora_value* const info_ = telvora_dictionary_new();
    telvora_value* const payload_ = telvora_dictionary_new();
    telvora_session* session_ = nullptr;
    std::mutex lock_;
    Notes events_;
};

TEST_F(Libtelvora, CarriesEveryOperation) {
    startDaemon();
    session_ = open(daemon().socketPath());
    const auto file = directory().write("a b%.log", "content");
    telvora_value* user = telvora_dictionary_new();
    telvora_set_string(user, kTelvoraUserInfoClientName, "tester");
    telvora_value* message = telvora_dictionary_new();
    telvora_set_int(message, kTelvoraMessageParametersCategory, 5);
    telvora_set_int(message, kTelvoraMessageParametersType, 7);
    telvora_set_value(message, kTelvoraMessageParametersPayload, payload_);
    telvora_value* records = telvora_array_new();
    telvora_set_string(records, nullptr, "record");
    const char* const frameworks[] = {"Framework"};

    Notes notes;
    const telvora_status statuses[] = {
        telvora_session_set_info(session_, info_, user, frameworks, 1, noteAnswer, &notes),
        telvora_session_start(session_, noteAnswer, &notes),
        telvora_session_fetch_states(session_, user, noteAnswer, &notes),
        telvora_session_fetch_display_url(session_, noteAnswer, &notes),
        telvora_session_send(session_, 5, 6, payload_, nullptr, nullptr),
        telvora_session_send_dictionary(session_, message, nullptr, nullptr),
        telvora_session_wait(session_, kPatienceMs),
        telvora_session_flush(session_, nullptr, nullptr),
        telvora_session_wait(session_, kPatienceMs),
        telvora_session_flush(session_, noteAnswer, &notes),
        telvora_session_finish(session_, nullptr, nullptr),
        telvora_session_upload_log_data(session_, records, noteAnswer, &notes),
        telvora_session_upload_file(session_, file.c_str(), noteAnswer, &notes),
        telvora_session_wait(session_, kPatienceMs),
        telvora_session_send_single(session_, info_, user, 8, 9, payload_, noteAnswer, &notes),
        telvora_session_wait(session_, kPatienceMs),
    };
    EXPECT_THAT(statuses, testing::Each(TELVORA_OK));
    EXPECT_THAT(notes, ElementsAre("done", "uploadServer", "uploadServer", "URL not available",
                                   "done -1 Nothing to flush", "false", "true", "finished"));
    EXPECT_THAT(takeEvents(), ElementsAre("message 0/0", "message 5/6", "message 5/7", "message 0/2"));
    ASSERT_EQ(laboratory().uploads().uploadCount(), 1u);
    EXPECT_EQ(laboratory().uploads().uploads()[0].body, "content");

    EXPECT_EQ(telvora_session_upload_file(session_, "/nowhere", nullptr, nullptr), TELVORA_ERROR_FILE);
    EXPECT_EQ(errno, ENOENT);
    const auto link = directory().path() / "link";
    create_symlink(directory().write("linked", "content"), link);
    EXPECT_EQ(telvora_session_upload_file(session_, link.c_str(), nullptr, nullptr), TELVORA_ERROR_FILE);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(telvora_session_send_single(session_, payload_, nullptr, 1, 1, nullptr, nullptr, nullptr),
              TELVORA_ERROR_INVALID);
    EXPECT_EQ(telvora_session_send(session_, 1, 1, records, nullptr, nullptr), TELVORA_ERROR_INVALID);
    const std::string much(17'000'000, 'x');
    telvora_set_data(payload_, "much", much.data(), much.size());
    EXPECT_EQ(send(), TELVORA_OK);  // no report leaves the process
    EXPECT_EQ(telvora_session_wait(session_, kPatienceMs), TELVORA_ERROR_FILE);  // the first failure
    EXPECT_EQ(telvora_session_lost_calls(session_), 0u);
    for (telvora_value* value : {user, message, records})
        telvora_value_free(value);
}

TEST_F(Libtelvora, OutlivesItsDaemon) {
    startDaemon();
    configure();
    kill(daemon().pid(), SIGSTOP);
    siginfo_t stopped;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(daemon().pid()), &stopped, WSTOPPED), 0);
    Notes notes;
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(telvora_session_send(session_, 5, 6, payload_, noteAnswer, &notes), TELVORA_OK);
    EXPECT_EQ(telvora_session_wait(session_, 0), TELVORA_ERROR_TIMEOUT);
    kill(daemon().pid(), SIGKILL);
    EXPECT_EQ(telvora_session_wait(session_, kPatienceMs), TELVORA_ERROR_LOST);
    EXPECT_THAT(notes, testing::Each(telvora_status_text(TELVORA_ERROR_LOST)));
    EXPECT_EQ(telvora_session_lost_calls(session_), 3u);
    ASSERT_EQ(daemon().waitForExit(), 128 + SIGKILL);

    startDaemon();
    EXPECT_EQ(send(), TELVORA_OK);
    EXPECT_EQ(flushAndWait(), TELVORA_OK);
    EXPECT_TRUE(waitForEvents(2));  // start and report
    EXPECT_THAT(takeEvents(), UnorderedElementsAre("lost 3", "restored 3", "message 0/0", "message 5/6"));
}

TEST_F(Libtelvora, TakesReportsOfManyThreads) {
    constexpr int kThreads = 100, kReports = 50;
    // A busy machine's server may leave all of them pending.
    startDaemon([](DaemonOptions& options) { options.defaults = {{"maxPendingBytesPerUser", 64 << 20}}; });
    configure();
    std::vector<std::jthread> threads;
    std::atomic<int> refused = 0;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int report = 0; report < kReports; ++report)
                refused += send() != TELVORA_OK;
        });
    }
    threads.clear();
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(flushAndWait(), TELVORA_OK);
    EXPECT_TRUE(waitForEvents(kThreads * kReports + 1));
}

TEST_F(Libtelvora, FailsAtOnceWithoutADaemonOrAnEntitlement) {
    startDaemon([](DaemonOptions& options) { options.entitlement.reset(); });
    // In a child process, whose first session this is.
    EXPECT_EQ(inForkedChild([&](const ChildReport& report) {
                  session_ = open(directory().path() / "absent");
                  for (const char* call : {"the first", "the next"})
                      report.expect(send() == TELVORA_ERROR_UNAVAILABLE, call);
                  report.expect(telvora_session_wait(session_, kPatienceMs) == TELVORA_ERROR_UNAVAILABLE,
                                "its answer");
                  telvora_session_free(session_);
              }),
              "");
    session_ = open(daemon().socketPath());
    EXPECT_EQ(send(), TELVORA_OK);
    EXPECT_EQ(telvora_session_wait(session_, kPatienceMs), TELVORA_ERROR_LOST);
}

TEST_F(Libtelvora, LeavesAForkedChildItsOwnSessions) {
    startDaemon();
    configure();
    ASSERT_EQ(send(), TELVORA_OK);
    const auto child = [&](const ChildReport& report) {
        report.expect(send() == TELVORA_ERROR_FORKED, "a call");
        report.expect(telvora_session_wait(session_, -1) == TELVORA_ERROR_FORKED, "a wait");
        report.expect(telvora_session_lost_calls(session_) == 0, "the lost calls");
        telvora_session_free(session_);
#ifndef TELVORA_SANITIZED  // ThreadSanitizer ends a forked child that starts a thread
        telvora_session* own = open(daemon().socketPath());
        telvora_session_fetch_display_url(own, nullptr, nullptr);
        report.expect(telvora_session_wait(own, kPatienceMs) == TELVORA_OK, "a session of its own");
        telvora_session_free(own);
#endif
    };
    EXPECT_EQ(inForkedChild(child), "");
    EXPECT_EQ(flushAndWait(), TELVORA_OK);
    EXPECT_TRUE(waitForEvents(2));
}

// The child exits right after sending, and goes on calling while its statics are destroyed.
TEST_F(Libtelvora, MayBeUsedToTheEndOfTheProcess) {
    startDaemon();
    const std::vector<std::string> lines{"threads 1", "0", "atexit: 9", "static: 9"};
    for (const bool disabled : {true, false}) {
        const Finished child =
            expectRun(TELVORA_EXIT_CLIENT, 0, "", "",
                      {{"TELVORA_SOCKET", daemon().socketPath()}, {"TELVORA_DISABLE", disabled ? "1" : "0"}});
        EXPECT_EQ(child.output, lines) << disabled;
        EXPECT_TRUE(disabled ? reports().eventCount() == 0
                             : waitForEvents(3));  // start, the report, and the end
    }
}

// Several daemons take the socket in turn while clients report (docs/protocol.md).
TEST_F(Libtelvora, AndUpdatedDaemonsAgreeOnWhatIsLost) {
    constexpr size_t kClients = 4, kLives = 4, kLifeWithAServerThatRejects = 1;
    static constexpr int64_t kReportsPerLife = 500;  // of each client
    laboratory().setBag("dravik", bagWithClients({openClientEntry({{"expedite", 0}})}));
    const auto allReport = [this] {
        const Dictionary now = status();
        const Array& sessions = *now.array("sessions");
        return sessions.size() == kClients &&
               std::all_of(sessions.begin(), sessions.end(), [](const PropertyList& session) {
                   const Dictionary* accounts = session.getIf<Dictionary>()->dictionary("accounts");
                   const Dictionary* account = accounts->dictionary("httpPost");
                   return account != nullptr && account->integer("accepted") >= kReportsPerLife;
               });
    };
    std::vector<std::unique_ptr<ChildProcess>> clients;
    size_t sent = 0, lostByLibrary = 0, lostByDaemons = 0, rejected = 0;
    for (size_t life = 0; life < kLives; ++life) {
        const bool rejects = life == kLifeWithAServerThatRejects;
        reports().setFault(rejects ? lab::ReportingFault::notFound : lab::ReportingFault::none);
        const size_t arrivedBefore = reports().eventCount();
        startDaemon([](DaemonOptions& options) {
            options.logLevel = 6;
            options.defaults = {{"shutdownMilliseconds", kPatienceMs}};
        });
        while (clients.size() < kClients) {
            clients.push_back(std::make_unique<ChildProcess>(ChildProcessOptions{
                {TELVORA_LOAD_CLIENT, "load"}, {{"TELVORA_SOCKET", daemon().socketPath()}}}));
        }
        while (!allReport())
            std::this_thread::yield();
        for (size_t i = 0; life == kLives - 1 && i < kClients; ++i) {
            clients[i]->closeInput();
            EXPECT_EQ(clients[i]->waitForExit(), 0);
            size_t itsReports = 0, itsLost = 0;
            std::sscanf(clients[i]->output().linesToTheEnd().at(0).c_str(), "%zu %zu", &itsReports, &itsLost);
            sent += itsReports;
            lostByLibrary += itsLost;
        }
        daemon().signal(SIGTERM);
        for (const std::string& line : daemon().errors().linesToTheEnd()) {
            size_t lost = 0;
            std::sscanf(line.c_str(), "<4>main: %zu reports lost of ", &lost);
            lostByDaemons += lost;
        }
        awaitDaemonsEnd();
        if (rejects) rejected = reports().eventCount() - arrivedBefore;
    }
    // Each daemon adds a start and an end message for each client.
    EXPECT_EQ(sent + 2 * kClients * kLives,
              lostByLibrary + lostByDaemons + (reports().eventCount() - rejected));
    EXPECT_GE(sent, kClients * kLives * kReportsPerLife);
    EXPECT_GE(lostByDaemons, rejected);
}

// The examples, which build_examples.sh has built against the installed library.
TEST_F(Libtelvora, HasExamplesThatReport) {
    startDaemon();
    const std::string built = TELVORA_EXAMPLES_BUILT;
    const std::string python = "/usr/bin/python3 " TELVORA_EXAMPLES;
    std::vector<std::string> commands{built + "/c/first_report", built + "/cpp/first_report",
                                      python + "/dbus/first_report.py"};
    if (*TELVORA_PYTHON_PATH != '\0') commands.push_back(python + "/python/first_report.py");
    for (const char* optional : {"/rust/first_report", "/go/first_report"}) {
        if (std::filesystem::exists(built + optional)) commands.push_back(built + optional);
    }
    size_t expected = 0;
    for (const std::string& command : commands) {
        expectRun(command, 0, "", "",
                  {{"TELVORA_SOCKET", daemon().socketPath()},
                   {"LD_LIBRARY_PATH", built + "/prefix/lib"},
                   {"PYTHONPATH", TELVORA_PYTHON_PATH}});
        EXPECT_TRUE(waitForEvents(expected += 3)) << command;
    }
    const auto isReport = [](const Dictionary& event) {
        return event.contains("fruit") && event.contains(kTelvoraUserInfoClientName);
    };
    EXPECT_THAT(reports().events(), testing::Contains(testing::Truly(isReport)).Times(commands.size()));
}

// The tests of the Python package, which make the calls of CarriesEveryOperation.
TEST_F(Libtelvora, ServesPython) {
    startDaemon();
    expectRun("/usr/bin/python3 " TELVORA_PYTHON_TEST, 0, "OK", "",
              {{"TELVORA_SOCKET", daemon().socketPath()},
               {"LD_LIBRARY_PATH", std::filesystem::path(TELVORA_LIBRARY).parent_path()},
               {"PYTHONPATH", TELVORA_PYTHON_PATH}});
    EXPECT_EQ(laboratory().uploads().uploadCount(), 1u);
}

}  // namespace
}  // namespace telvora::test
