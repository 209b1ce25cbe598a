// SPDX-License-Identifier: Apache-2.0
#include "connections/client_connection.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "protocol/client_session_methods.h"
#include "tests/support/bus_peer.h"
#include "tests/support/fake_session.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

namespace telvora::test {
namespace {

using namespace std::string_literals;

class ClientConnectionTest : public testing::Test {
  protected:
    ClientConnectionTest() {
        SocketPair sockets;
        connection = ClientConnection::make(pool.makeStrand(), std::move(sockets.ours), "the client");
        connection->setExportedObject(session);
        connection->setInvalidationHandler([this] {
            if (beforeEnd) beforeEnd();
            ended.set_value();
        });
        theirs = std::move(sockets.theirs);
    }
    // The pool uses the fixture until it stops; the strands are destroyed before their pool.
    ~ClientConnectionTest() override { pool.stop(); }
    void resume() {
        connection->resume();
        peer = std::make_unique<BusPeer>(std::move(theirs));
    }
    SdBusMessage sessionCall(const char* method) {
        return peer->newCall(kTelvoradPath, ClientSessionInterface::kWireName, method);
    }
    SdBusMessage reportCall(const std::string& text = "") {
        SdBusMessage call = sessionCall("SendMessageWithCategory");
        EXPECT_GE(sd_bus_message_append(call.get(), "qqaa{sv}", 1, 2, 1, 1, "text", "s", text.c_str()), 0);
        return call;
    }

    WorkPool pool{2};
    std::shared_ptr<FakeSession> session = std::make_shared<FakeSession>();
    std::shared_ptr<ClientConnection> connection;
    std::unique_ptr<BusPeer> peer;
    UniqueFd theirs;
    std::function<void()> beforeEnd;
    std::promise<void> ended;
};

TEST_F(ClientConnectionTest, AnswersFromAnyThreadLateOrNever) {
    resume();
    std::vector<std::thread> threads;
    session->onSendMessage = [&](StringReply reply) {
        threads.emplace_back([reply = std::move(reply)]() mutable {
            reply("late");
            reply("twice");
        });
    };
    SdBusMessage reply = peer->call(reportCall());
    const char* text = "";
    EXPECT_GT(sd_bus_message_read(reply.get(), "as", 1, &text), 0);
    EXPECT_STREQ(text, "late");
    threads[0].join();

    session->onSendMessage = [](StringReply) {};  // no answer
    peer->send(reportCall());
    const uint64_t cookie = peer->send(sessionCall("FetchDisplayURL"));
    EXPECT_EQ(peer->receive().answeredCookie(), cookie);
}

TEST_F(ClientConnectionTest, AClientMayGoInTheMiddleOfACall) {
    std::promise<StringReply> asked;
    session->onSendMessage = [&](StringReply reply) { asked.set_value(std::move(reply)); };
    const std::weak_ptr<FakeSession> exported = session;
    bool givenUp = false;
    beforeEnd = [&] { givenUp = exported.expired(); };
    resume();
    peer->send(reportCall());
    peer->flush();
    const StringReply reply = asked.get_future().get();
    session.reset();
    peer->close();
    ended.get_future().wait();
    EXPECT_TRUE(givenUp);
    reply("too late");
}

TEST_F(ClientConnectionTest, CallsThatAClientSentBeforeItLeftAreCarriedOut) {
    resume();
    std::promise<void> entered, gone;
    session->onSendMessage = [&](StringReply reply) {
        if (session->calls.size() == 1) {
            entered.set_value();
            gone.get_future().wait();  // as a slow bag server would make it
        }
        reply("to nobody");
    };
    constexpr size_t kReports = 100;
    for (size_t i = 0; i < kReports; ++i) {
        peer->send(reportCall());
        peer->flush();
        if (i == 0) entered.get_future().wait();  // the others are not read before the first answer
    }
    peer->close();
    gone.set_value();
    ended.get_future().wait();
    EXPECT_EQ(session->calls.size(), kReports);
}

TEST_F(ClientConnectionTest, BringsMessagesToTheClientInOrderAndOnceMoreAtTheEnd) {
    LogCapture log;
    resume();
    ASSERT_EQ(errorName(peer->call(sessionCall("StartConfig"))), "");
    const auto info = std::make_shared<const Dictionary>(Dictionary{{"session", 7}});
    connection->sendMessageToClient(info, 12.5, 3, 4, Dictionary{{"k", "v"}}, {});
    beforeEnd = [&] { connection->sendMessageToClient(nullptr, 0, 0, 0, std::nullopt, {}); };
    connection->invalidate();
    ended.get_future().wait();

    SdBusMessage first = peer->receive();
    ASSERT_TRUE(first);
    EXPECT_STREQ(sd_bus_message_get_path(first.get()), ClientMessageInterface::kWirePath);
    EXPECT_STREQ(sd_bus_message_get_member(first.get()), "SendMessageToClient");
    EXPECT_EQ(sd_bus_message_get_expect_reply(first.get()), 0);
    const char *infoKey = "", *key = "", *value = "";
    int64_t number = 0;
    double time = 0;
    uint16_t category = 0, type = 0;
    EXPECT_GT(sd_bus_message_read(first.get(), "aa{sv}dqqaa{sv}", 1, 1, &infoKey, "x", &number, &time,
                                  &category, &type, 1, 1, &key, "s", &value),
              0);
    EXPECT_EQ(std::tuple(infoKey + ""s, number, time, category, type, key + ""s, value + ""s),
              std::tuple("session"s, 7, 12.5, 3, 4, "k"s, "v"s));
    SdBusMessage marker = peer->receive();
    ASSERT_TRUE(marker);
    EXPECT_GT(sd_bus_message_read(marker.get(), "aa{sv}d", 0, &time), 0);
    EXPECT_EQ(time, 0);
    EXPECT_FALSE(peer->receive());
    connection->sendMessageToClient(info, 1, 1, 1, std::nullopt, {});
    EXPECT_TRUE(log.contains(
        "<3>sendMessageWithDictionary: Failed to get remote object proxy: the connection has ended"));
}

// Messages wait for a client that lags, within the documented bounds and its user's quota.
TEST_F(ClientConnectionTest, KeepsMessagesForAClientThatLags) {
    TemporaryDirectory directory;
    UserDefaults defaults(directory.path(), directory.path());
    UserQuotas quotas(defaults);
    const QuotaUser user = quotas.of(1);
    connection->setUser(user);
    resume();
    ASSERT_EQ(errorName(peer->call(sessionCall("StartConfig"))), "");

    constexpr size_t kBytes = 100'000;
    constexpr int kMessages = 100;  // 10 MB
    std::atomic<int> outcomes[4] = {};
    const auto outcome = [&](Delivery delivery) -> std::atomic<int>& {
        return outcomes[static_cast<size_t>(delivery)];
    };
    const auto held = [&](Quota quota) { return quotas.uses()[1][static_cast<size_t>(quota)].held; };
    const auto send = [&](int number, std::optional<Dictionary> payload) {
        connection->sendMessageToClient(std::make_shared<const Dictionary>(), number, 1, 1,
                                        std::move(payload), [&](Delivery delivery) { ++outcome(delivery); });
    };
    for (int i = 1; i <= kMessages; ++i)
        send(i, Dictionary{{"text", std::string(kBytes, 'x')}});
    const int kept = kMessages - outcome(Delivery::tooMuchUnread);
    EXPECT_GE(kept * kBytes, ClientConnection::kMaxOutboxBytes - kBytes);
    EXPECT_LE(kept * kBytes, ClientConnection::kMaxOutboxBytes + (size_t{2} << 20));
    EXPECT_GT(held(Quota::unreadBytes), size_t{1} << 20);

    ASSERT_TRUE(defaults.set(kTelvoraDefaultsDomain, "maxUnreadBytesPerUser", 1));
    static_cast<void>(quotas.of(1));
    send(kMessages + 1, std::nullopt);
    EXPECT_EQ(outcome(Delivery::overQuota), 1);
    double last = 0;
    for (int i = 0; i < kept; ++i) {
        SdBusMessage message = peer->receive();
        ASSERT_TRUE(message);
        double number = 0;
        EXPECT_GT(sd_bus_message_read(message.get(), "aa{sv}d", 1, 0, &number), 0);
        EXPECT_GT(number, last);
        last = number;
    }
    ASSERT_EQ(errorName(peer->call(reportCall(std::string(2 * kBytes, 'x')))), "");
    ASSERT_EQ(errorName(peer->call(sessionCall("FetchDisplayURL"))), "");
    EXPECT_EQ(outcome(Delivery::handedOver), kept);
    EXPECT_EQ(held(Quota::unreadBytes) + held(Quota::inputBytes), 0U);
    connection->invalidate();
    ended.get_future().wait();
}

}  // namespace
}  // namespace telvora::test
