// SPDX-License-Identifier: Apache-2.0
#include "client/reconnecting_session.h"

#include <gmock/gmock.h>
#include <poll.h>

#include "telvora/keys.h"
#include "tests/unit/client/daemon_end.h"

namespace telvora::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::Pair;

struct ReconnectingSessionTest : DaemonEnd {
    using enum Operation;
    using Event = std::pair<telvora_connection_event, uint64_t>;  // with the calls that were lost

    ReconnectingSessionTest() { open(false); }
    void open(bool aggregates) {
        SessionTarget::Handlers handlers;
        handlers.connection = [this](telvora_connection_event event, uint64_t lost, const std::string&) {
            events_.push({event, lost});
        };
        if (aggregates) handlers.message = [](const AggregatedMessage&) {};
        session = std::make_shared<ReconnectingSession>(
            runtime, socketPath, std::move(handlers), [this] { return now.load(); },
            [this](std::chrono::milliseconds delay, std::function<void()> due) {
                const auto started = std::make_shared<int>();
                timer = started;
                timers_.push({delay, std::move(due)});
                return started;
            });
    }
    ~ReconnectingSessionTest() override {
        session->close();
        hangUp();
        pool.stop();
    }

    // A call with this user info, if it is not 0.
    struct Step {
        Operation operation;
        int user = 0;
        bool requiresUserInfo = false;
    };
    telvora_status call(const Step& step, std::future<Answer>* answer = nullptr) {
        auto promise = std::make_shared<std::promise<Answer>>();
        if (answer != nullptr) *answer = promise->get_future();
        const Dictionary info{{kTelvoraSessionInfoRequireUserInfo, step.requiresUserInfo}};
        const Dictionary user{{"user", step.user}};
        Request request{.operation = step.operation, .sessionInfo = &info};
        if (step.user != 0) request.userInfo = &user;
        return session->call(std::move(request),
                             [promise](Answer given) { promise->set_value(std::move(given)); });
    }
    telvora_status call(Operation operation, std::future<Answer>* answer = nullptr) {
        return call(Step{operation}, answer);
    }
    Event nextEvent() { return events_.pop(); }
    // The session's next timer.
    std::pair<std::chrono::milliseconds, std::function<void()>> nextTimer() { return timers_.pop(); }
    bool acceptNext() {
        pollfd waiting = {listener.get(), POLLIN, 0};
        return poll(&waiting, 1, -1) == 1 && accept();
    }
    // The names of the calls that the present connection has brought, with the user info where one came.
    std::vector<std::string> heard() const {
        std::vector<std::string> names;
        for (const PropertyList& call : daemon->calls) {
            const auto& [name, arguments] = *call.getIf<Dictionary>()->begin();
            names.push_back(name);
            for (const PropertyList& argument : *arguments.getIf<Array>()) {
                const Dictionary* given = argument.getIf<Dictionary>();
                if (given != nullptr && given->contains("user"))
                    names.back() += " " + std::to_string(*given->integer("user"));
            }
        }
        return names;
    }

    std::atomic<std::chrono::steady_clock::time_point> now{std::chrono::steady_clock::time_point(1h)};
    std::shared_ptr<ReconnectingSession> session;
    std::weak_ptr<void> timer;  // the newest

  private:
    template <typename T>
    class Queue {
      public:
        void push(T item) {
            const MutexLock lock(lock_);
            items_.push_back(std::move(item));
            changed_.notify_all();
        }
        T pop() {
            const MutexLock lock(lock_);
            while (items_.empty())
                changed_.wait(lock_);
            T item = std::move(items_.front());
            items_.pop_front();
            return item;
        }

      private:
        Mutex lock_;
        std::condition_variable_any changed_;
        std::deque<T> items_ TELVORA_GUARDED_BY(lock_);
    };
    Queue<Event> events_;
    Queue<std::pair<std::chrono::milliseconds, std::function<void()>>> timers_;
};

TEST_F(ReconnectingSessionTest, TriesOnceASecondAndKeepsItsCalls) {
    EXPECT_EQ(call(Step{kSetSessionInfo, 1}), TELVORA_ERROR_UNAVAILABLE);
    listen();
    now = now.load() + 999ms;
    EXPECT_EQ(call(kStartConfig), TELVORA_ERROR_UNAVAILABLE);
    EXPECT_FALSE(accept());
    now = now.load() + 1ms;
    std::future<Answer> answer;
    EXPECT_EQ(call(kSendMessage, &answer), TELVORA_OK);
    ASSERT_TRUE(accept());
    EXPECT_EQ(answer.get().status, TELVORA_OK);
    EXPECT_THAT(heard(), ElementsAre("setSessionInfo 1", "startConfig", "sendMessageWithCategory"));
    EXPECT_EQ(nextEvent().first, TELVORA_CONNECTION_RESTORED);
    // The batches of the daemon's backends are not lost when these are made anew.
    EXPECT_EQ(call(kStartConfig, &answer), TELVORA_OK);
    EXPECT_EQ(answer.get().status, TELVORA_OK);
    EXPECT_THAT(heard(), ElementsAre("setSessionInfo 1", "startConfig", "sendMessageWithCategory",
                                     "flushMessages", "startConfig"));
}

TEST_F(ReconnectingSessionTest, TakesAConnectionWithoutAnswersForAFailedAttempt) {
    listen();
    std::future<Answer> answers[2];
    for (std::future<Answer>& answer : answers)
        EXPECT_EQ(call(kSendMessage, &answer), TELVORA_OK);
    UniqueFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
    EXPECT_EQ(nextEvent(), Event(TELVORA_CONNECTION_LOST, 2));
    for (std::future<Answer>& answer : answers)
        EXPECT_EQ(answer.get().status, TELVORA_ERROR_LOST);
    EXPECT_EQ(call(kSendMessage), TELVORA_ERROR_UNAVAILABLE);
    now = now.load() + ReconnectingSession::kMinRetryDelay;
    EXPECT_EQ(call(kSendMessage, &answers[0]), TELVORA_OK);
    session->close();
    EXPECT_EQ(answers[0].get().status, TELVORA_ERROR_CLOSED);
    EXPECT_EQ(session->lostCalls(), 2u);
}

TEST_F(ReconnectingSessionTest, RestoresTheSessionThatTheDaemonHad) {
    listen();
    const Step info{kSetSessionInfo, 1}, gated{kSetSessionInfo, 1, true}, start{kStartConfig},
        url{kFetchDisplayURL};
    const struct {
        std::vector<Step> before;
        Step first;  // on the new connection
        std::vector<std::string> heard;
    } cases[] = {
        {{}, {kSendMessage}, {"sendMessageWithCategory"}},
        {{info}, {kSendMessage}, {"setSessionInfo 1", "sendMessageWithCategory"}},
        {{info, start}, {kFlushMessages}, {"setSessionInfo 1", "startConfig", "flushMessages"}},
        // No call is sent twice.
        {{info, start}, {kSetSessionInfo, 9}, {"setSessionInfo 9", "startConfig"}},
        {{info, start}, start, {"setSessionInfo 1", "startConfig"}},
        {{info}, start, {"setSessionInfo 1", "startConfig"}},
        // The user info is the daemon's, a withdrawal included, before the session's first report.
        {{info, start, {kFetchStates, 3}}, url, {"setSessionInfo 3", "startConfig", "fetchDisplayURL"}},
        {{info, start, {kFetchStates}}, url, {"setSessionInfo", "startConfig", "fetchDisplayURL"}},
        {{gated, {kFetchStates}}, url, {"setSessionInfo 1", "fetchDisplayURL"}},
        {{info, start}, {kFetchStates}, {"setSessionInfo", "startConfig", "fetchStates"}},
        {{gated, {kSendSingleMessage}}, url, {"setSessionInfo", "fetchDisplayURL"}},
        {{info, {kSendSingleMessage, 2, true}, {kFetchStates}}, url, {"setSessionInfo 2", "fetchDisplayURL"}},
    };
    for (const auto& [before, first, expected] : cases) {
        session = std::make_shared<ReconnectingSession>(runtime, socketPath, SessionTarget::Handlers{});
        std::future<Answer> answer;
        for (const Step& step : before)
            ASSERT_EQ(call(step), TELVORA_OK);
        ASSERT_EQ(call(kFetchDisplayURL, &answer), TELVORA_OK);
        ASSERT_TRUE(accept());
        ASSERT_EQ(answer.get().status, TELVORA_OK);

        // A call without an answer shows the client that the connection has ended.
        daemon->onSendMessage = [this](const StringReply&) { connection->invalidate(); };
        ASSERT_EQ(call(kSendMessage, &answer), TELVORA_OK);
        ASSERT_EQ(answer.get().status, TELVORA_ERROR_LOST);
        hangUp();
        ASSERT_EQ(call(first, &answer), TELVORA_OK);
        ASSERT_TRUE(accept());
        ASSERT_EQ(answer.get().status, TELVORA_OK);
        ASSERT_EQ(call(kFinishSession, &answer), TELVORA_OK);
        ASSERT_EQ(answer.get().status, TELVORA_OK);
        std::vector<std::string> names = heard();
        names.pop_back();
        EXPECT_EQ(names, expected);
        session->close();
        hangUp();
    }
}

TEST_F(ReconnectingSessionTest, ReturnsByItselfWhereItAggregates) {
    listen();
    open(true);
    std::future<Answer> answer;
    ASSERT_EQ(call(Step{kSetSessionInfo, 1}), TELVORA_OK);
    ASSERT_EQ(call(kStartConfig, &answer), TELVORA_OK);
    ASSERT_TRUE(accept());
    ASSERT_EQ(answer.get().status, TELVORA_OK);
    const auto expectReturn = [this] {
        ASSERT_TRUE(acceptNext());
        EXPECT_EQ(nextEvent().first, TELVORA_CONNECTION_RESTORED);
        EXPECT_THAT(heard(), ElementsAre("setSessionInfo 1", "startConfig"));
    };
    now = now.load() + 1s;
    hangUp();
    EXPECT_EQ(nextEvent().first, TELVORA_CONNECTION_LOST);
    expectReturn();

    // Without a daemon it waits ever longer, and starts anew after a connection that lasted.
    listener.reset();
    hangUp();
    EXPECT_EQ(nextEvent().first, TELVORA_CONNECTION_LOST);
    for (const auto delay : {1s, 2s, 4s, 8s, 16s, 32s, 64s, 128s, 256s, 512s, 600s, 600s}) {
        const auto [waited, due] = nextTimer();
        EXPECT_EQ(waited, delay);
        if (delay == 256s) {  // as a daemon that turns it away
            std::filesystem::remove(socketPath);
            listen();
            due();
            UniqueFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
            EXPECT_EQ(nextEvent().first, TELVORA_CONNECTION_LOST);
            listener.reset();
        } else {
            due();
        }
    }
    std::filesystem::remove(socketPath);
    listen();
    const auto [waited, due] = nextTimer();
    EXPECT_EQ(waited, 600s);
    due();
    expectReturn();
    EXPECT_TRUE(timer.expired());

    std::filesystem::remove(socketPath);
    listener.reset();
    now = now.load() + 1s;
    hangUp();
    EXPECT_THAT(nextTimer(), Pair(1s, testing::_));
    session->close();
    EXPECT_TRUE(timer.expired());
}

}  // namespace
}  // namespace telvora::test
