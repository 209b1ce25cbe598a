// SPDX-License-Identifier: Apache-2.0
#include "client/reconnecting_session.h"

#include <gmock/gmock.h>

#include "tests/unit/client/daemon_end.h"

namespace telvora::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

struct ReconnectingSessionTest : DaemonEnd {
    using enum Operation;
    using Event = std::pair<telvora_connection_event, uint64_t>;  // with the calls that were lost

    ReconnectingSessionTest() {
        SessionTarget::Handlers handlers;
        handlers.connection = [this](telvora_connection_event event, uint64_t lost, const std::string&) {
            const MutexLock lock(lock_);
            events_.emplace_back(event, lost);
            changed_.notify_all();
        };
        session = std::make_shared<ReconnectingSession>(runtime, socketPath, std::move(handlers),
                                                        [this] { return now; });
    }
    ~ReconnectingSessionTest() override {
        session->close();
        hangUp();
        pool.stop();
    }

    telvora_status call(Request request, std::future<Answer>* answer = nullptr) {
        auto promise = std::make_shared<std::promise<Answer>>();
        if (answer != nullptr) *answer = promise->get_future();
        return session->call(std::move(request),
                             [promise](Answer given) { promise->set_value(std::move(given)); });
    }
    telvora_status call(Operation operation, std::future<Answer>* answer = nullptr) {
        return call(Request{.operation = operation}, answer);
    }
    static Request info(int id, Operation operation = kSetSessionInfo) {
        Request request{.operation = operation};
        request.sessionInfo = {{"id", id}};
        request.userInfo = Dictionary{{"user", id}};
        return request;
    }
    Event nextEvent() {
        const MutexLock lock(lock_);
        while (events_.empty())
            changed_.wait(lock_);
        const Event event = events_.front();
        events_.erase(events_.begin());
        return event;
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

    std::chrono::steady_clock::time_point now{1h};
    std::shared_ptr<ReconnectingSession> session;

  private:
    Mutex lock_;
    std::condition_variable_any changed_;
    std::vector<Event> events_ TELVORA_GUARDED_BY(lock_);
};

TEST_F(ReconnectingSessionTest, TriesOnceASecondAndKeepsWhatItWasTold) {
    EXPECT_EQ(call(info(1)), TELVORA_ERROR_UNAVAILABLE);
    listen();
    now += 999ms;
    EXPECT_EQ(call(kStartConfig), TELVORA_ERROR_UNAVAILABLE);
    EXPECT_FALSE(accept());
    now += 1ms;
    std::future<Answer> answer;
    EXPECT_EQ(call(kSendMessage, &answer), TELVORA_OK);
    ASSERT_TRUE(accept());
    EXPECT_EQ(answer.get().status, TELVORA_OK);
    EXPECT_THAT(heard(), ElementsAre("setSessionInfo 1", "startConfig", "sendMessageWithCategory"));
    EXPECT_EQ(nextEvent().first, TELVORA_CONNECTION_RESTORED);
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
    now += ReconnectingSession::kRest;
    EXPECT_EQ(call(kSendMessage, &answers[0]), TELVORA_OK);
    session->close();
    EXPECT_EQ(answers[0].get().status, TELVORA_ERROR_CLOSED);
    EXPECT_EQ(session->lostCalls(), 2u);
}

TEST_F(ReconnectingSessionTest, TellsANewDaemonNothingTwice) {
    listen();
    const struct {
        std::vector<Operation> before;
        Operation first;  // on the new connection
        std::vector<std::string> heard;
    } cases[] = {
        {{}, kSendMessage, {"sendMessageWithCategory"}},
        {{kSetSessionInfo}, kSendMessage, {"setSessionInfo 1", "sendMessageWithCategory"}},
        {{kSetSessionInfo, kStartConfig},
         kFlushMessages,
         {"setSessionInfo 1", "startConfig", "flushMessages"}},
        {{kSetSessionInfo, kStartConfig, kFetchStates},
         kFetchDisplayURL,
         {"setSessionInfo 3", "startConfig", "fetchDisplayURL"}},
        {{kSetSessionInfo, kStartConfig}, kSetSessionInfo, {"setSessionInfo 9", "startConfig"}},
        {{kSetSessionInfo, kStartConfig}, kStartConfig, {"setSessionInfo 1", "startConfig"}},
        {{kSetSessionInfo}, kStartConfig, {"setSessionInfo 1", "startConfig"}},
    };
    for (const auto& [before, first, expected] : cases) {
        session = std::make_shared<ReconnectingSession>(runtime, socketPath, SessionTarget::Handlers{});
        std::future<Answer> answer;
        int id = 0;
        for (const Operation operation : before)
            ASSERT_EQ(call(info(++id, operation)), TELVORA_OK);
        ASSERT_EQ(call(kFetchDisplayURL, &answer), TELVORA_OK);
        ASSERT_TRUE(accept());
        ASSERT_EQ(answer.get().status, TELVORA_OK);

        // A call without an answer shows the client that the connection has ended.
        daemon->onSendMessage = [this](const StringReply&) { connection->invalidate(); };
        ASSERT_EQ(call(kSendMessage, &answer), TELVORA_OK);
        ASSERT_EQ(answer.get().status, TELVORA_ERROR_LOST);
        hangUp();
        ASSERT_EQ(call(info(9, first), &answer), TELVORA_OK);
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

}  // namespace
}  // namespace telvora::test
