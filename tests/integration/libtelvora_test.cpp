// SPDX-License-Identifier: Apache-2.0
//
// libtelvora as applications use it, the shared library through its C interface, with the real daemon: every
// operation, and the loss of the daemon, of rights or of the process.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <fstream>
#include <mutex>
#include <thread>

#include "telvora/telvora.h"
#include "tests/support/bags.h"
#include "tests/support/daemon_fixture.h"
#include "tests/support/expect_run.h"
#include "tests/support/forked_child.h"
#include "tests/support/unix_socket.h"

namespace telvora::test {
namespace {

// ThreadSanitizer ends a forked child that starts a thread.
#ifdef TELVORA_SANITIZED
constexpr bool kChildMayStartThreads = false;
#else
constexpr bool kChildMayStartThreads = true;
#endif

using testing::ElementsAre;
using testing::UnorderedElementsAre;

constexpr int64_t kPatienceMs = std::chrono::milliseconds(kPatience).count();

// The events of completions and handlers, in order. Read after a wait for the session.
using Notes = std::vector<std::string>;

// Callbacks run on the library's thread, and without a wait if the session reconnects by itself.
class Events {
  public:
    void add(std::string event) {
        const std::scoped_lock lock(lock_);
        events_.push_back(std::move(event));
    }
    Notes all() const {
        const std::scoped_lock lock(lock_);
        return events_;
    }
    void clear() {
        const std::scoped_lock lock(lock_);
        events_.clear();
    }

  private:
    mutable std::mutex lock_;
    Notes events_;
};

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
    void SetUp() override {
        DaemonFixture::SetUp();
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
        options.on_message = [](void* context, const telvora_value*, double, uint16_t category, uint16_t type,
                                const telvora_value*) {
            static_cast<Events*>(context)->add("message " + std::to_string(category) + "/" +
                                               std::to_string(type));
        };
        options.on_connection = [](void* context, telvora_connection_event event, uint64_t lost,
                                   const char*) {
            static_cast<Events*>(context)->add((event == TELVORA_CONNECTION_LOST ? "lost " : "restored ") +
                                               std::to_string(lost));
        };
        options.message_context = options.connection_context = &events_;
        return telvora_session_new(&options);
    }
    // A configured session.
    void configure() {
        session_ = open(daemon().socketPath());
        telvora_session_set_info(session_, info_, nullptr, nullptr, 0, nullptr, nullptr);
        telvora_session_start(session_, nullptr, nullptr);
        ASSERT_EQ(telvora_session_wait(session_, kPatienceMs), TELVORA_OK);
        events_.clear();
    }
    telvora_status send() { return telvora_session_send(session_, 5, 6, payload_, nullptr, nullptr); }
    telvora_status flushAndWait() {
        telvora_session_flush(session_, nullptr, nullptr);
        return telvora_session_wait(session_, kPatienceMs);
    }

    telvora_value* const info_ = telvora_dictionary_new();
    telvora_value* const payload_ = telvora_dictionary_new();
    telvora_session* session_ = nullptr;
    Events events_;
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
    EXPECT_THAT(events_.all(), ElementsAre("message 0/0", "message 5/6", "message 5/7", "message 0/2"));
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
    ASSERT_EQ(daemon().process().waitForExit(kPatience), 128 + SIGKILL);

    startDaemon();
    EXPECT_EQ(send(), TELVORA_OK);
    EXPECT_EQ(flushAndWait(), TELVORA_OK);
    EXPECT_TRUE(waitForEvents(2));  // start and report
    EXPECT_THAT(events_.all(), UnorderedElementsAre("lost 3", "restored 3", "message 0/0", "message 5/6"));

    // It aggregates, and so reconnects without a call.
    kill(daemon().pid(), SIGKILL);
    ASSERT_EQ(daemon().process().waitForExit(kPatience), 128 + SIGKILL);
    startDaemon();
    expectLine("<7>setSessionInfo: Configuring session 7");
}

TEST_F(Libtelvora, TakesReportsOfManyThreads) {
    constexpr int kThreads = 100, kReports = 50;
    startDaemon();
    configure();
    std::vector<std::thread> threads;
    std::atomic<int> refused = 0;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int report = 0; report < kReports; ++report)
                refused += send() != TELVORA_OK;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(flushAndWait(), TELVORA_OK);
    EXPECT_TRUE(waitForEvents(kThreads * kReports + 1));
}

// In a child process: the library before its first session, and a user without rights.
TEST_F(Libtelvora, FailsAtOnceWithoutADaemon) {
    startDaemon([](DaemonOptions& options) { options.entitlement.reset(); });
    const std::string deaf = directory().path() / "deaf";
    boundSocket(deaf, SOCK_STREAM);  // closed at once
    const struct {
        std::string path;
        bool asNobody;
        telvora_status first;  // the result of the first call
        telvora_status answer;
    } cases[] = {{directory().path() / "absent", false, TELVORA_ERROR_UNAVAILABLE, TELVORA_ERROR_UNAVAILABLE},
                 {deaf, false, TELVORA_ERROR_UNAVAILABLE, TELVORA_ERROR_UNAVAILABLE},
                 {std::string(200, 'x'), false, TELVORA_ERROR_UNAVAILABLE, TELVORA_ERROR_UNAVAILABLE},
                 {daemon().socketPath(), true, TELVORA_ERROR_UNAVAILABLE, TELVORA_ERROR_UNAVAILABLE},
                 {daemon().socketPath(), false, TELVORA_OK, TELVORA_ERROR_LOST}};
    std::filesystem::permissions(directory().path() / "run", std::filesystem::perms::owner_all);
    for (const auto& [path, asNobody, first, answer] : cases) {
        if (asNobody && geteuid() != 0) continue;  // only root can become another user
        if (first == TELVORA_OK && !kChildMayStartThreads) continue;
        SCOPED_TRACE(path + (asNobody ? " as nobody" : ""));
        EXPECT_EQ(inForkedChild([&, &path = path, asNobody = asNobody, first = first,
                                 answer = answer](const ChildReport& report) {
                      if (asNobody && setresuid(65534, 65534, 65534) != 0) report.wrong("no other user");
                      session_ = open(path);
                      report.expect(send() == first, "the first call");
                      report.expect(telvora_session_wait(session_, kPatienceMs) == answer, "its answer");
                      report.expect(send() == TELVORA_ERROR_UNAVAILABLE || first == TELVORA_OK, "the next");
                      telvora_session_free(session_);
                  }),
                  "");
    }
    session_ = nullptr;
}

TEST_F(Libtelvora, LeavesAForkedChildItsOwnSessions) {
    startDaemon();
    configure();
    ASSERT_EQ(send(), TELVORA_OK);
    EXPECT_EQ(inForkedChild([&](const ChildReport& report) {
                  report.expect(send() == TELVORA_ERROR_FORKED, "a call");
                  report.expect(telvora_session_wait(session_, -1) == TELVORA_ERROR_FORKED, "a wait");
                  report.expect(telvora_session_lost_calls(session_) == 0, "the lost calls");
                  telvora_session_free(session_);
                  if (!kChildMayStartThreads) return;
                  telvora_session* own = open(daemon().socketPath());
                  telvora_session_fetch_display_url(own, nullptr, nullptr);
                  report.expect(telvora_session_wait(own, kPatienceMs) == TELVORA_OK, "a session of its own");
                  telvora_session_free(own);
              }),
              "");
    EXPECT_EQ(flushAndWait(), TELVORA_OK);
    EXPECT_TRUE(waitForEvents(2));
}

// The child exits right after sending, and goes on calling while its statics are destroyed.
TEST_F(Libtelvora, MayBeUsedToTheEndOfTheProcess) {
    startDaemon();
    const std::vector<std::string> lines{"threads 1", "0", "atexit: 9", "static: 9"};
    for (const bool disabled : {true, false}) {
        const Finished child =
            expectRun({TELVORA_EXIT_CLIENT}, 0, "", "",
                      {{"TELVORA_SOCKET", daemon().socketPath()}, {"TELVORA_DISABLE", disabled ? "1" : "0"}});
        EXPECT_EQ(child.output, lines) << disabled;
        EXPECT_TRUE(disabled ? reports().eventCount() == 0
                             : waitForEvents(3));  // start, the report, and the end
    }
}

// The examples, which build_examples.sh has built against the installed library.
TEST_F(Libtelvora, HasExamplesThatReport) {
    startDaemon();
    const std::string built = TELVORA_EXAMPLES_BUILT;
    size_t expected = 0;
    for (const std::string& command : {built + "/c/first_report", built + "/cpp/first_report",
                                       std::string("/usr/bin/python3 " TELVORA_PYTHON_EXAMPLE)}) {
        expectRun(wordsOf(command), 0, "", "",
                  {{"TELVORA_SOCKET", daemon().socketPath()}, {"LD_LIBRARY_PATH", built + "/prefix/lib"}});
        EXPECT_TRUE(waitForEvents(expected += 3)) << command;
    }
    const auto events = reports().events();
    EXPECT_EQ(std::count_if(events.begin(), events.end(),
                            [](const Dictionary& event) { return event.contains("fruit"); }),
              3);
}

}  // namespace
}  // namespace telvora::test
