// SPDX-License-Identifier: Apache-2.0
#include "client/client_session.h"

#include <fcntl.h>

#include <atomic>
#include <thread>

#include "protocol/client_session_wire.h"
#include "telvora/keys.h"
#include "tests/support/environment_variable.h"
#include "tests/unit/client/daemon_end.h"

namespace telvora::test {
namespace {

class FakeIssuer : public FileExtensionIssuer {
    tl::expected<std::string, std::string> issueFileExtension(std::string path, UniqueFd file) override {
        return file ? "token for " + path : "";
    }
};

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

// What `operation` answers when it is given a completion.
template <typename T, typename Operation>
T ask(Operation operation) {
    const Answer<T> answer;
    operation(answer.completion());
    auto result = answer.get();
    EXPECT_TRUE(result);
    if constexpr (!std::is_void_v<T>) return std::move(result.value());
}

struct ClientSessionTest : DaemonEnd {
    ClientSessionTest() {
        issuer = std::make_shared<FakeIssuer>();
        listen();
    }
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

TEST_F(ClientSessionTest, OffersEveryOperation) {
    using Text = std::optional<std::string>;
    connect();
    const Dictionary d{{"k", 1}, {"z", Array{true}}};
    ClientSession& s = *session;
    ask<void>([&](auto done) { s.setSessionInfo(d, std::nullopt, {"a", "b"}, done); });
    const std::vector<std::string> states{"httpPost", "dashboard"};
    EXPECT_EQ(ask<ReportingStates>([&](auto done) { s.startConfig(done); }), states);
    EXPECT_EQ(ask<ReportingStates>([&](auto done) { s.fetchStates(d, done); }), std::nullopt);
    EXPECT_EQ(ask<std::string>([&](auto done) { s.fetchDisplayURL(done); }), "URL not available");
    EXPECT_EQ(ask<Text>([&](auto done) { s.sendMessage(65535, 2, d, done); }), std::nullopt);
    EXPECT_EQ(ask<Text>([&](auto done) { s.sendMessage(d, done); }), "answer");
    const auto flushed = ask<FlushAnswer>([&](auto done) { s.flushMessages(done); });
    EXPECT_EQ(flushed.answer, "flushed");
    EXPECT_EQ(flushed.error, makeTelvoraError("no", 503));
    EXPECT_EQ(ask<Text>([&](auto done) { s.finishSession(done); }), "finished");
    EXPECT_EQ(ask<std::string>([&](auto done) {
                  s.issueFileExtension("/dev/null", UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)), done);
              }),
              "token for /dev/null");
    EXPECT_TRUE(ask<bool>([&](auto done) { s.uploadFile("file:///a", "token", done); }));
    const auto uploaded = ask<UploadAnswer>([&](auto done) { s.uploadLogData({1, d}, done); });
    EXPECT_TRUE(uploaded.uploaded && !uploaded.error);
    EXPECT_EQ(ask<std::string>([&](auto done) { s.sendSingleMessage(d, d, 3, 4, std::nullopt, done); }),
              "storebag not available");

    const Array expected{
        Dictionary{{"setSessionInfo", Array{d, "nothing", Array{"a", "b"}, false}}},
        Dictionary{{"startConfig", Array{}}},
        Dictionary{{"fetchStates", Array{d}}},
        Dictionary{{"fetchDisplayURL", Array{}}},
        Dictionary{{"sendMessageWithCategory", Array{65535, 2, d}}},
        Dictionary{{"sendMessageWithDictionary", Array{d}}},
        Dictionary{{"flushMessages", Array{}}},
        Dictionary{{"finishSession", Array{}}},
        Dictionary{{"uploadFileAtPath", Array{"file:///a", "token"}}},
        Dictionary{{"uploadLogData", Array{Array{1, d}}}},
        Dictionary{{"sendMessageWithSessionInfo", Array{d, d, 3, 4, "nothing"}}},
    };
    EXPECT_EQ(daemon->calls, expected);
    EXPECT_EQ(daemon->calls.size(), clientSessionBusInterface().methods().size());
}

TEST_F(ClientSessionTest, TellsEveryCallerWhenTheConnectionIsLost) {
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

TEST_F(ClientSessionTest, RefusesWhatCantBeSentAndTooMuchOfIt) {
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

TEST_F(ClientSessionTest, HandsMessagesToTheAggregationBlock) {
    std::promise<AggregatedMessage> first;
    std::promise<void> end;
    connect({[&](AggregatedMessage message) {
                 if (message.isEndMarker()) return end.set_value();
                 first.set_value(std::move(message));
             },
             nullptr});
    ask<void>([&](auto done) { session->setSessionInfo({}, std::nullopt, {}, done); });
    EXPECT_EQ(daemon->calls[0],
              PropertyList(Dictionary{{"setSessionInfo", Array{Dictionary{}, "nothing", Array{}, true}}}));
    connection->sendMessageToClient(Dictionary{{"s", 1}}, 2.5, 3, 4, Dictionary{{"k", "v"}});
    connection->sendMessageToClient(std::nullopt, 0, 0, 0, std::nullopt);
    end.get_future().wait();
    const AggregatedMessage message = first.get_future().get();
    EXPECT_EQ(message.sessionInfo, (Dictionary{{"s", 1}}));
    EXPECT_EQ(message.timestamp, 2.5);
    EXPECT_EQ(message.category, 3);
    EXPECT_EQ(message.type, 4);
    EXPECT_EQ(message.payload, (Dictionary{{"k", "v"}}));
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
