// SPDX-License-Identifier: Apache-2.0
#include "daemon/client_connection.h"

#include <gtest/gtest.h>

#include <future>
#include <regex>
#include <set>
#include <thread>

#include "protocol/client_session_wire.h"
#include "protocol/property_list_codec.h"
#include "protocol/status_wire.h"
#include "telvora-lab/temporary_directory.h"
#include "tests/support/bus_peer.h"
#include "tests/support/fake_session.h"
#include "tests/support/log_capture.h"

namespace telvora {
namespace {

using test::BusPeer;
using test::errorName;
using test::FakeSession;
using test::LogCapture;
using test::SocketPair;

constexpr char kSession[] = "com.zandor.telvorad.ClientSessionInterface";
constexpr char kExtension[] = "com.zandor.telvorad.SandboxExtension";

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
    // Nothing of the fixture goes while the pool still uses it; the strands go before their pool.
    ~ClientConnectionTest() override { pool.stop(); }
    BusPeer& resume() {
        connection->resume();
        peer = std::make_unique<BusPeer>(std::move(theirs));
        return *peer;
    }
    BusMessage sessionCall(const char* method) { return peer->newCall(kTelvoradPath, kSession, method); }
    BusMessage reportCall() {
        BusMessage call = sessionCall("SendMessageWithCategory");
        ArgumentWriter out(call);
        out.u16(1);
        out.u16(2);
        out.optionalDictionary(std::nullopt);
        EXPECT_EQ(out.result(), 0);
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

// --- The contract ---

std::string attribute(const std::string& tag, const char* name) {
    std::smatch match;
    std::regex_search(tag, match, std::regex("\\b" + std::string(name) + "=\"([^\"]*)\""));
    return match.empty() ? "" : match[1].str();
}

// "interface.method" and "interface.method n: direction type name" for everything of ours that the XML
// declares.
std::set<std::string> declarations(const std::string& xml, const std::string& prefix = "com.zandor.") {
    std::set<std::string> found;
    std::string interface;
    std::string method;
    int argument = 0;
    const std::regex tags("<!--[^]*?-->|<(interface|method|arg)\\b[^>]*>");
    for (std::sregex_iterator at(xml.begin(), xml.end(), tags), none; at != none; ++at) {
        const std::string tag = at->str();
        const std::string kind = (*at)[1];
        std::string declared;
        if (kind == "interface") interface = attribute(tag, "name");
        if (kind == "method") {
            declared = method = interface + "." + attribute(tag, "name");
            argument = 0;
        }
        if (kind == "arg") {
            declared = method + " " + std::to_string(argument++) + ": " + attribute(tag, "direction") + " " +
                       attribute(tag, "type") + " " + attribute(tag, "name");
        }
        if (!declared.empty() && declared.rfind(prefix, 0) == 0) found.insert(declared);
    }
    return found;
}

std::string introspect(BusPeer& peer, const char* path) {
    BusMessage reply = peer.call(peer.newCall(path, "org.freedesktop.DBus.Introspectable", "Introspect"));
    EXPECT_EQ(errorName(reply), "");
    const char* xml = "";
    reply.read('s', &xml);
    return xml;
}

TEST_F(ClientConnectionTest, ServesTheContract) {
    std::string contract;
    for (const char* name : {"com.zandor.telvorad.xml", "com.zandor.telvorad.Status.xml"})
        contract += lab::readFile(std::filesystem::path(TELVORA_WIRE_CONTRACTS) / name);
    const std::string served = introspect(resume(), kTelvoradPath);
    for (const char* interface : {kSession, kExtension})
        EXPECT_EQ(declarations(served, interface), declarations(contract, interface));
    EXPECT_GT(declarations(served).size(), 30u);

    // What the client and the status socket export comes from the same table.
    for (const BusInterface* interface : {&clientSessionReplyBusInterface(), &statusBusInterface()}) {
        SocketPair sockets;
        auto server = *BusConnection::make(pool.makeStrand(), std::move(sockets.ours), BusRole::kServer);
        const auto ignore = [](BusMessage&) { return std::optional<BusError>(); };
        ASSERT_TRUE(server->exportInterface(
            "/x", *interface,
            std::vector<BusConnection::MethodHandler>(interface->methods().size(), ignore)));
        std::promise<void> over;
        server->start([&](const std::string&) { over.set_value(); });
        {
            BusPeer client(std::move(sockets.theirs));
            EXPECT_EQ(declarations(introspect(client, "/x")), declarations(contract, interface->name()));
        }
        over.get_future().wait();
    }
}

// --- Operations ---

TEST_F(ClientConnectionTest, AnswersFromAnyThreadLateOrNever) {
    resume();
    std::vector<std::thread> threads;
    session->onSendMessage = [&](StringReply reply) {
        threads.emplace_back([reply = std::move(reply)]() mutable {
            reply("late");
            reply("twice");
        });
    };
    BusMessage reply = peer->call(reportCall());
    ArgumentReader in(reply);
    EXPECT_EQ(in.optionalString(), "late");
    threads[0].join();

    session->onSendMessage = [](StringReply) {};  // no answer
    peer->send(reportCall());
    const uint64_t cookie = peer->send(sessionCall("FetchDisplayURL"));
    BusMessage next = peer->receive();
    uint64_t answered = 0;
    ASSERT_GE(sd_bus_message_get_reply_cookie(next.get(), &answered), 0);
    EXPECT_EQ(answered, cookie);
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

TEST_F(ClientConnectionTest, WhatAClientSentBeforeItWentStillCounts) {
    resume();
    std::promise<void> entered;
    std::promise<void> gone;
    session->onSendMessage = [&](StringReply reply) {
        if (session->calls.size() == 1) {
            entered.set_value();
            gone.get_future().wait();  // as a slow bag server would make it
        }
        reply("to nobody");
    };
    constexpr size_t kReports = 100;
    for (size_t i = 0; i < kReports; ++i)
        peer->send(reportCall());
    peer->flush();
    entered.get_future().wait();
    peer->close();
    gone.set_value();
    ended.get_future().wait();
    EXPECT_EQ(session->calls.size(), kReports);
}

// --- To the client ---

TEST_F(ClientConnectionTest, BringsMessagesToTheClientInOrderAndOnceMoreAtTheEnd) {
    LogCapture log;
    resume();
    ASSERT_EQ(errorName(peer->call(sessionCall("StartConfig"))), "");
    const Dictionary info{{"session", 7}};
    connection->sendMessageToClient(info, 12.5, 3, 4, Dictionary{{"k", "v"}});
    beforeEnd = [&] { connection->sendMessageToClient(std::nullopt, 0, 0, 0, std::nullopt); };
    connection->invalidate();
    ended.get_future().wait();

    BusMessage first = peer->receive();
    ASSERT_TRUE(first);
    EXPECT_STREQ(sd_bus_message_get_path(first.get()), kTelvoradClientPath);
    EXPECT_STREQ(sd_bus_message_get_member(first.get()), "SendMessageToClient");
    EXPECT_EQ(sd_bus_message_get_expect_reply(first.get()), 0);
    ArgumentReader in(first);
    EXPECT_EQ(in.optionalDictionary(), info);
    EXPECT_EQ(in.real(), 12.5);
    EXPECT_EQ(in.u16(), 3);
    EXPECT_EQ(in.u16(), 4);
    EXPECT_EQ(in.optionalDictionary(), (Dictionary{{"k", "v"}}));
    BusMessage marker = peer->receive();
    ASSERT_TRUE(marker);
    ArgumentReader markerIn(marker);
    EXPECT_EQ(markerIn.optionalDictionary(), std::nullopt);
    EXPECT_EQ(markerIn.real(), 0);
    EXPECT_FALSE(peer->receive());
    connection->sendMessageToClient(info, 1, 1, 1, std::nullopt);
    EXPECT_TRUE(log.contains(
        "<3>sendMessageWithDictionary: Failed to get remote object proxy: the connection has ended"));
}

}  // namespace
}  // namespace telvora
