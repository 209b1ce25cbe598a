// SPDX-License-Identifier: Apache-2.0
//
// Cases that a session with the real daemon does not show.
#include "client/client_session.h"

#include <atomic>

#include "client/flush_watch.h"
#include "telvora/keys.h"
#include "tests/support/environment_variable.h"
#include "tests/unit/client/daemon_end.h"

namespace telvora::test {
namespace {

// The future of an operation's answer.
template <typename T>
struct Answer {
    using Result = tl::expected<T, CallFailure>;
    std::shared_ptr<std::promise<Result>> promise = std::make_shared<std::promise<Result>>();
    Completion<T> completion() const {
        return [promise = promise](Result answer) { promise->set_value(std::move(answer)); };
    }
    Result get() const { return promise->get_future().get(); }
};

struct ClientSessionTest : DaemonEnd {
    ClientSessionTest() { listen(); }
    ~ClientSessionTest() override {
        session.reset();
        hangUp();
        pool.stop();
    }
    void connect(ClientSession::Handlers handlers = {}) {
        auto connected = ClientSession::connect(runtime, socketPath, std::move(handlers));
        ASSERT_TRUE(connected) << connected.error();
        session = std::move(*connected);
        ASSERT_TRUE(accept());
    }

    std::unique_ptr<ClientSession> session;
};

TEST_F(ClientSessionTest, SaysWhyItCantConnect) {
    for (const std::string& path : {socketPath + "none", std::string(200, 'x'), std::string()}) {
        const auto connected = ClientSession::connect(runtime, path);
        ASSERT_FALSE(connected);
        EXPECT_EQ(connected.error().rfind("can't connect to " + path + ": ", 0), 0u);
    }
}

TEST(ClientSessionPathTest, ComesFromTheEnvironment) {
    const struct {
        const char *socket, *directory, *path;
    } cases[] = {{nullptr, nullptr, "/run/telvora/com.zandor.telvorad"},
                 {nullptr, "/a:/b", "/a/com.zandor.telvorad"},
                 {"/c", "/a:/b", "/c"}};
    for (const auto& c : cases) {
        const EnvironmentVariable socket("TELVORA_SOCKET", c.socket), run("RUNTIME_DIRECTORY", c.directory);
        EXPECT_EQ(ClientSession::defaultSocketPath(), c.path);
    }
}

TEST_F(ClientSessionTest, FailsEveryCallWhenTheConnectionIsLost) {
    std::promise<std::string> lost;
    connect({nullptr, [&](const std::string& reason) { lost.set_value(reason); }});
    std::promise<void> asked;
    daemon->onSendMessage = [&](StringReply) { asked.set_value(); };  // never answered
    Answer<std::optional<std::string>> waiting;
    session->sendMessage(1, 2, std::nullopt, waiting.completion());
    asked.get_future().wait();
    connection->invalidate();
    EXPECT_EQ(waiting.get().error().kind, CallFailure::Kind::kConnectionLost);
    EXPECT_NE(lost.get_future().get(), "");
    Answer<std::string> late;
    session->fetchDisplayURL(late.completion());
    EXPECT_EQ(late.get().error().kind, CallFailure::Kind::kConnectionLost);
}

TEST_F(ClientSessionTest, SaysThatItWasTurnedAway) {
    std::promise<std::string> lost;
    auto connected = ClientSession::connect(runtime, socketPath,
                                            {nullptr, [&](const auto& reason) { lost.set_value(reason); }});
    ASSERT_TRUE(connected);
    session = std::move(*connected);
    Answer<std::string> waiting;
    session->fetchDisplayURL(waiting.completion());
    UniqueFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
    const std::string reason = waiting.get().error().message;
    EXPECT_NE(reason.find("not entitled (telvorad.entitlements(5))"), std::string::npos) << reason;
    EXPECT_EQ(lost.get_future().get(), reason);
}

// The daemon answers no flush where the bag names no backends.
TEST_F(ClientSessionTest, AnswersAFlushThatNoBackendCanAnswer) {
    const struct {
        const char* what;
        std::vector<std::string> states;
        bool answersFlushes;
        int level;
        const char* error;  // null: no answer
    } cases[] = {{"no backends", {}, false, 0, FlushWatch::kNoBackends},
                 {"backends that don't report", {}, true, 0, "no"},
                 {"a server that takes its time", {"httpPost"}, false, 0, nullptr},
                 {"a parent that may make it report", {}, false, 1, nullptr}};
    for (const auto& [what, states, answersFlushes, level, error] : cases) {
        SCOPED_TRACE(what);
        connect();
        daemon->reportingStates = states;
        daemon->answersFlushes = answersFlushes;
        const Dictionary token{{kTelvoraHierarchyTokenLevel, level}};
        session->setSessionInfo({{kTelvoraSessionInfoHierarchyToken, token}}, std::nullopt, {}, nullptr);
        Answer<ReportingStates> started;
        Answer<FlushAnswer> flushes[2];  // one before, one after the states are known
        session->startConfig(started.completion());
        session->flushMessages(flushes[0].completion());
        EXPECT_TRUE(started.get());
        session->flushMessages(flushes[1].completion());
        for (int i = 0; i < 2; ++i) {  // and the probe after the first answer
            Answer<std::string> after;
            session->fetchDisplayURL(after.completion());
            EXPECT_TRUE(after.get());
        }
        if (error == nullptr) session->invalidate();
        for (Answer<FlushAnswer>& flush : flushes) {
            const auto answer = flush.get();
            ASSERT_EQ(answer.has_value(), error != nullptr);
            if (answer) {
                EXPECT_EQ(answer->error->description, error);
            }
        }
        session.reset();
        hangUp();
    }
}

TEST_F(ClientSessionTest, RefusesInvalidArgumentsAndTooManyCalls) {
    connect();
    Dictionary deep;
    for (int i = 0; i < 40; ++i)
        deep = Dictionary{{"d", std::move(deep)}};
    Answer<std::optional<std::string>> invalid;
    session->sendMessage(1, 2, deep, invalid.completion());
    EXPECT_EQ(invalid.get().error().kind, CallFailure::Kind::kInvalid);

    std::promise<void> release;
    daemon->onSendMessage = [&, first = true](const StringReply& reply) mutable {
        if (std::exchange(first, false)) release.get_future().wait();
        reply("taken");
    };
    std::atomic<size_t> taken = 0;
    std::atomic<size_t> refused = 0;
    std::promise<void> all;
    const size_t calls = ClientSession::kMaxPendingCalls + 10;
    for (size_t i = 0; i < calls; ++i) {
        session->sendMessage(1, 2, std::nullopt, [&](const auto& answer) {
            EXPECT_TRUE(answer || answer.error().kind == CallFailure::Kind::kTooManyCalls);
            ++(answer ? taken : refused);
            if (taken + refused == calls) all.set_value();
        });
    }
    release.set_value();
    all.get_future().wait();
    EXPECT_GE(refused, 10u);
    EXPECT_LE(refused, 11u);  // the invalid call may not quite have ended
}

TEST_F(ClientSessionTest, HasChildrenInItsHierarchy) {
    const auto level = [](const PropertyList& value) {
        return Dictionary{{kTelvoraHierarchyTokenTokenID, "t"}, {kTelvoraHierarchyTokenLevel, value}};
    };
    Dictionary info{{kTelvoraSessionInfoSessionID, 1}, {kTelvoraSessionInfoClientType, 8}};
    auto first = ClientSession::connect(runtime, socketPath);
    ASSERT_TRUE(first);
    UniqueFd ignored(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    (*first)->setSessionInfo(info, std::nullopt, {}, nullptr);
    EXPECT_EQ((*first)->child(2, std::nullopt, nullptr).error(), "the session belongs to no hierarchy");

    info.set(kTelvoraSessionInfoHierarchyToken, level(3));
    (*first)->setSessionInfo(info, std::nullopt, {"f"}, nullptr);
    Answer<void> configured;
    const Dictionary userInfo{{kTelvoraUserInfoClientName, "child"}};
    auto child = (*first)->child(2, userInfo, configured.completion(), {[](const auto&) {}, nullptr});
    ASSERT_TRUE(child);
    session = std::move(*child);
    ASSERT_TRUE(accept());
    first->reset();  // a child goes on without its parent
    EXPECT_TRUE(configured.get());
    const Dictionary expected{{kTelvoraSessionInfoSessionID, 2},
                              {kTelvoraSessionInfoClientType, 8},
                              {kTelvoraSessionInfoHierarchyToken, level(4)}};
    EXPECT_EQ(daemon->calls[0],
              PropertyList(Dictionary{{"setSessionInfo", Array{expected, userInfo, Array{"f"}, true}}}));
}

}  // namespace
}  // namespace telvora::test
