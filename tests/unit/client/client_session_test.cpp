// SPDX-License-Identifier: Apache-2.0
#include "client/client_session.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <filesystem>
#include <future>
#include <thread>

#include "daemon/client_connection.h"
#include "tests/support/fake_session.h"
#include "tests/support/temporary_directory.h"

namespace telvora {
namespace {

using test::FakeSession;

class FakeIssuer : public FileExtensionIssuer {
  public:
    tl::expected<std::string, std::string> issueFileExtension(std::string path, UniqueFd file) override {
        return file ? "token for " + path : "";
    }
};

// The future of an operation's answer.
template <typename T>
struct Answer {
    std::shared_ptr<std::promise<tl::expected<T, CallFailure>>> promise =
        std::make_shared<std::promise<tl::expected<T, CallFailure>>>();
    Completion<T> completion() const {
        return [promise = promise](tl::expected<T, CallFailure> answer) {
            promise->set_value(std::move(answer));
        };
    }
    tl::expected<T, CallFailure> get() const { return promise->get_future().get(); }
};

// A daemon with one connection, and a session connected to it.
class ClientSessionTest : public testing::Test {
  protected:
    ClientSessionTest() {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        socketPath.string().copy(address.sun_path, sizeof address.sun_path - 1);
        listener.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener.get(), 1), 0);
    }
    ~ClientSessionTest() override {
        session.reset();
        if (connection) ended.get_future().wait();
        pool.stop();
    }
    void connect(ClientSession::Handlers handlers = {}) {
        auto connected = ClientSession::connect(runtime, socketPath, std::move(handlers));
        ASSERT_TRUE(connected) << connected.error();
        session = std::move(*connected);
        connection = ClientConnection::make(
            pool.makeStrand(), UniqueFd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)), "client");
        connection->setExportedObject(daemon);
        connection->setFileExtensionIssuer(std::make_shared<FakeIssuer>());
        connection->setInvalidationHandler([this] { ended.set_value(); });
        connection->resume();
    }

    // The first, so that they outlive the strands they made.
    WorkPool pool{1};
    ClientRuntime runtime;
    test::TemporaryDirectory directory;
    std::filesystem::path socketPath = directory.path() / "socket";
    UniqueFd listener;
    std::promise<void> ended;
    std::shared_ptr<FakeSession> daemon = std::make_shared<FakeSession>();
    std::shared_ptr<ClientConnection> connection;
    std::unique_ptr<ClientSession> session;
};

TEST_F(ClientSessionTest, SaysWhyItCantConnect) {
    for (const std::string& path :
         {(directory.path() / "none").string(), std::string(200, 'x'), std::string()}) {
        const auto connected = ClientSession::connect(runtime, path);
        ASSERT_FALSE(connected);
        EXPECT_EQ(connected.error().rfind("can't connect to " + path + ": ", 0), 0u);
    }
}

TEST_F(ClientSessionTest, TakesTheSocketFromTheEnvironment) {
    unsetenv("TELVORA_SOCKET");
    unsetenv("RUNTIME_DIRECTORY");
    EXPECT_EQ(ClientSession::defaultSocketPath(), "/run/telvora/com.zandor.telvorad");
    setenv("RUNTIME_DIRECTORY", "/a:/b", 1);
    EXPECT_EQ(ClientSession::defaultSocketPath(), "/a/com.zandor.telvorad");
    setenv("TELVORA_SOCKET", "/c", 1);
    EXPECT_EQ(ClientSession::defaultSocketPath(), "/c");
    unsetenv("TELVORA_SOCKET");
    unsetenv("RUNTIME_DIRECTORY");
}

TEST_F(ClientSessionTest, OffersEveryOperation) {
    connect();
    const Dictionary d{{"k", 1}};
    Answer<void> setInfo;
    Answer<ReportingStates> start;
    Answer<ReportingStates> states;
    Answer<std::string> url;
    Answer<std::optional<std::string>> byCategory;
    Answer<std::optional<std::string>> byDictionary;
    Answer<FlushAnswer> flush;
    Answer<std::optional<std::string>> finish;
    Answer<std::string> token;
    Answer<bool> upload;
    Answer<UploadAnswer> logData;
    Answer<std::string> single;
    session->setSessionInfo(d, std::nullopt, {"a"}, setInfo.completion());
    session->startConfig(start.completion());
    session->fetchStates(d, states.completion());
    session->fetchDisplayURL(url.completion());
    session->sendMessage(1, 2, d, byCategory.completion());
    session->sendMessage(d, byDictionary.completion());
    session->flushMessages(flush.completion());
    session->finishSession(finish.completion());
    session->issueFileExtension("/dev/null", UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)),
                                token.completion());
    session->uploadFile("file:///a", "token", upload.completion());
    session->uploadLogData({d}, logData.completion());
    session->sendSingleMessage(d, d, 3, 4, std::nullopt, single.completion());

    EXPECT_TRUE(setInfo.get());
    EXPECT_EQ(start.get().value(), (std::vector<std::string>{"httpPost", "dashboard"}));
    EXPECT_EQ(states.get().value(), std::nullopt);
    EXPECT_EQ(url.get().value(), "URL not available");
    EXPECT_EQ(byCategory.get().value(), std::nullopt);
    EXPECT_EQ(byDictionary.get().value(), "answer");
    const auto flushed = flush.get();
    EXPECT_EQ(flushed.value().answer, "flushed");
    EXPECT_EQ(flushed.value().error, makeTelvoraError("no", 503));
    EXPECT_EQ(finish.get().value(), "finished");
    EXPECT_EQ(token.get().value(), "token for /dev/null");
    EXPECT_TRUE(upload.get().value());
    EXPECT_TRUE(logData.get().value().uploaded);
    EXPECT_EQ(single.get().value(), "storebag not available");

    const Array expected{
        Dictionary{{"setSessionInfo", Array{d, "nothing", Array{"a"}, false}}},
        Dictionary{{"startConfig", Array{}}},
        Dictionary{{"fetchStates", Array{d}}},
        Dictionary{{"fetchDisplayURL", Array{}}},
        Dictionary{{"sendMessageWithCategory", Array{1, 2, d}}},
        Dictionary{{"sendMessageWithDictionary", Array{d}}},
        Dictionary{{"flushMessages", Array{}}},
        Dictionary{{"finishSession", Array{}}},
        Dictionary{{"uploadFileAtPath", Array{"file:///a", "token"}}},
        Dictionary{{"uploadLogData", Array{Array{d}}}},
        Dictionary{{"sendMessageWithSessionInfo", Array{d, d, 3, 4, "nothing"}}},
    };
    EXPECT_EQ(daemon->calls, expected);
}

TEST_F(ClientSessionTest, PipelinesFromManyThreadsAndKeepsEachOnesOrder) {
    connect();
    constexpr int kThreads = 4;
    constexpr int kReports = 1000;
    std::atomic<int> answers = 0;
    std::promise<void> all;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < kReports; ++i) {
                session->sendMessage(static_cast<uint16_t>(thread), static_cast<uint16_t>(i), std::nullopt,
                                     [&](const auto& answer) {
                                         EXPECT_TRUE(answer);
                                         if (++answers == kThreads * kReports) all.set_value();
                                     });
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    all.get_future().wait();
    int64_t next[kThreads] = {};
    for (const PropertyList& call : daemon->calls) {
        const Array& arguments = *call.getIf<Dictionary>()->array("sendMessageWithCategory");
        EXPECT_EQ(arguments[1].integerValue(), next[*arguments[0].integerValue()]++);
    }
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
    std::vector<AggregatedMessage> received;
    std::promise<void> end;
    connect({[&](AggregatedMessage message) {
                 received.push_back(std::move(message));
                 if (received.back().isEndMarker()) end.set_value();
             },
             nullptr});
    Answer<void> setInfo;
    session->setSessionInfo({}, std::nullopt, {}, setInfo.completion());
    EXPECT_TRUE(setInfo.get());
    EXPECT_EQ(daemon->calls[0],
              PropertyList(Dictionary{{"setSessionInfo", Array{Dictionary{}, "nothing", Array{}, true}}}));
    connection->sendMessageToClient(Dictionary{{"s", 1}}, 2.5, 3, 4, Dictionary{{"k", "v"}});
    connection->sendMessageToClient(std::nullopt, 0, 0, 0, std::nullopt);
    end.get_future().wait();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].sessionInfo, (Dictionary{{"s", 1}}));
    EXPECT_EQ(received[0].timestamp, 2.5);
    EXPECT_EQ(received[0].category, 3);
    EXPECT_EQ(received[0].type, 4);
    EXPECT_EQ(received[0].payload, (Dictionary{{"k", "v"}}));
}

}  // namespace
}  // namespace telvora
