// SPDX-License-Identifier: Apache-2.0
#include "daemon/client_connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <fstream>
#include <future>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "protocol/client_session_wire.h"
#include "protocol/property_list_codec.h"
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

class FakeIssuer : public FileExtensionIssuer {
  public:
    tl::expected<std::string, std::string> issueFileExtension(std::string path, UniqueFd file) override {
        if (!file || path != "/dev/null") return tl::unexpected(std::string("wrong file"));
        return "token";
    }
};

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
    void end() {
        connection->invalidate();
        ended.get_future().wait();
    }
    BusPeer& resume() {
        connection->resume();
        peer = std::make_unique<BusPeer>(std::move(theirs));
        return *peer;
    }
    BusMessage sessionCall(const char* method, const std::function<void(ArgumentWriter&)>& write = nullptr) {
        BusMessage call = peer->newCall(kTelvoradPath, kSession, method);
        ArgumentWriter out(call);
        if (write) write(out);
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
    return std::regex_search(tag, match, std::regex("\\b" + std::string(name) + "=\"([^\"]*)\""))
               ? match[1].str()
               : "";
}

// "interface.method" and "interface.method n: direction type name" for everything that the XML declares.
std::set<std::string> declarations(const std::string& xml) {
    std::set<std::string> found;
    std::string interface;
    std::string method;
    int argument = 0;
    const std::regex tags("<!--[^]*?-->|<(interface|method|arg)\\b[^>]*>");
    for (std::sregex_iterator at(xml.begin(), xml.end(), tags), none; at != none; ++at) {
        const std::string tag = at->str();
        const std::string kind = (*at)[1];
        if (kind == "interface") interface = attribute(tag, "name");
        if (kind == "method") {
            method = interface + "." + attribute(tag, "name");
            argument = 0;
            found.insert(method);
        }
        if (kind == "arg") {
            found.insert(method + " " + std::to_string(argument++) + ": " + attribute(tag, "direction") +
                         " " + attribute(tag, "type") + " " + attribute(tag, "name"));
        }
    }
    return found;
}

std::set<std::string> ofInterfaces(const std::set<std::string>& all, const std::string& prefix) {
    std::set<std::string> found;
    for (const std::string& declaration : all) {
        if (declaration.rfind(prefix, 0) == 0) found.insert(declaration);
    }
    return found;
}

std::set<std::string> introspect(BusPeer& peer, const char* path) {
    BusMessage reply = peer.call(peer.newCall(path, "org.freedesktop.DBus.Introspectable", "Introspect"));
    EXPECT_EQ(errorName(reply), "");
    const char* xml = "";
    reply.read('s', &xml);
    return ofInterfaces(declarations(xml), "com.zandor.");
}

TEST_F(ClientConnectionTest, ServesTheContract) {
    std::ostringstream file;
    file << std::ifstream(TELVORA_WIRE_CONTRACT).rdbuf();
    const std::set<std::string> contract = declarations(file.str());
    std::set<std::string> served = introspect(resume(), kTelvoradPath);
    EXPECT_EQ(ofInterfaces(served, kSession), ofInterfaces(contract, kSession));
    EXPECT_EQ(ofInterfaces(served, kExtension), ofInterfaces(contract, kExtension));
    EXPECT_GT(served.size(), 30u);

    // What the client exports comes from the same table.
    SocketPair sockets;
    auto client = *BusConnection::make(pool.makeStrand(), std::move(sockets.ours), BusRole::kServer);
    const auto& interface = clientSessionReplyBusInterface();
    ASSERT_TRUE(client->exportInterface(kTelvoradClientPath, interface,
                                        {[](BusMessage&) { return std::optional<BusError>(); }}));
    std::promise<void> clientEnded;
    client->start([&](const std::string&) { clientEnded.set_value(); });
    {
        BusPeer daemon(std::move(sockets.theirs));
        EXPECT_EQ(introspect(daemon, kTelvoradClientPath), ofInterfaces(contract, interface.name()));
    }
    clientEnded.get_future().wait();
    end();
}

// --- Operations ---

TEST_F(ClientConnectionTest, CarriesEveryOperationAndItsAnswer) {
    resume();
    const Dictionary d{{"k", 1}, {"z", Array{true}}};
    const std::optional<Dictionary> nothing;
    const struct {
        const char* method;
        std::function<void(ArgumentWriter&)> write;
        Array arguments;
        std::function<bool(ArgumentReader&)> isAnswer;
    } cases[] = {
        {"SetSessionInfo",
         [&](ArgumentWriter& out) {
             out.dictionary(d);
             out.optionalDictionary(nothing);
             out.strings({"a", "b"});
             out.boolean(true);
         },
         {d, "nothing", Array{"a", "b"}, true},
         [](ArgumentReader&) { return true; }},
        {"StartConfig",
         nullptr,
         {},
         [](ArgumentReader& in) {
             return in.optionalStrings() == std::vector<std::string>{"httpPost", "dashboard"};
         }},
        {"FetchStates",
         [&](ArgumentWriter& out) { out.optionalDictionary(d); },
         {d},
         [](ArgumentReader& in) { return in.optionalStrings() == std::nullopt && in.ok(); }},
        {"FetchDisplayURL",
         nullptr,
         {},
         [](ArgumentReader& in) { return in.string() == "URL not available"; }},
        {"SendMessageWithCategory",
         [&](ArgumentWriter& out) {
             out.u16(65535);
             out.u16(2);
             out.optionalDictionary(d);
         },
         {65535, 2, d},
         [](ArgumentReader& in) { return in.optionalString() == std::nullopt && in.ok(); }},
        {"SendMessageWithDictionary",
         [&](ArgumentWriter& out) { out.dictionary(d); },
         {d},
         [](ArgumentReader& in) { return in.optionalString() == "answer"; }},
        {"FlushMessages",
         nullptr,
         {},
         [](ArgumentReader& in) {
             return in.optionalString() == "flushed" && in.optionalError() == makeTelvoraError("no", 503);
         }},
        {"FinishSession", nullptr, {}, [](ArgumentReader& in) { return in.optionalString() == "finished"; }},
        {"UploadFileAtPath",
         [&](ArgumentWriter& out) {
             out.string("file:///a");
             out.string("token");
         },
         {"file:///a", "token"},
         [](ArgumentReader& in) { return in.boolean(); }},
        {"UploadLogData",
         [&](ArgumentWriter& out) {
             out.array({1, d});
         },
         {Array{1, d}},
         [](ArgumentReader& in) { return in.boolean() && in.optionalError() == std::nullopt && in.ok(); }},
        {"SendMessageWithSessionInfo",
         [&](ArgumentWriter& out) {
             out.dictionary(d);
             out.optionalDictionary(d);
             out.u16(1);
             out.u16(2);
             out.optionalDictionary(nothing);
         },
         {d, d, 1, 2, "nothing"},
         [](ArgumentReader& in) { return in.string() == "storebag not available"; }},
    };
    for (const auto& c : cases) {
        BusMessage reply = peer->call(sessionCall(c.method, c.write));
        ASSERT_EQ(errorName(reply), "") << c.method;
        ArgumentReader in(reply);
        EXPECT_TRUE(c.isAnswer(in)) << c.method;
        const Dictionary& call = *session->calls.back().getIf<Dictionary>();
        EXPECT_EQ(call.begin()->value, PropertyList(c.arguments)) << c.method;
    }
    EXPECT_EQ(session->calls.size(), clientSessionBusInterface().methods().size());
    end();
}

TEST_F(ClientConnectionTest, AnswersBadArgumentsAndLivesOn) {
    resume();
    const auto send = [&](const char* method, const char* signature, auto... values) {
        BusMessage call = sessionCall(method);
        EXPECT_GE(sd_bus_message_append(call.get(), signature, values...), 0);
        return errorName(peer->call(call));
    };
    EXPECT_EQ(send("SendMessageWithCategory", "s", "x"), kBusErrorInvalidArgs);
    EXPECT_EQ(send("SendMessageWithCategory", "qqa{sv}", 1, 2, 0), kBusErrorInvalidArgs);
    EXPECT_EQ(send("SendMessageWithCategory", "qqaa{sv}", 1, 2, 2, 0, 0), kBusErrorInvalidArgs);
    EXPECT_EQ(send("SendMessageWithDictionary", "a{sv}", 1, "k", "o", "/"), kBusErrorInvalidArgs);
    EXPECT_EQ(send("UploadLogData", "av", 1, "as", 0), kBusErrorInvalidArgs);
    EXPECT_EQ(send("Unknown", ""), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_TRUE(session->calls.empty());
    EXPECT_EQ(errorName(peer->call(sessionCall("StartConfig"))), "");
    end();
}

TEST_F(ClientConnectionTest, AnswersFromAnyThreadLateOrNever) {
    resume();
    std::vector<std::thread> threads;
    session->onSendMessage = [&](StringReply reply) {
        threads.emplace_back([reply = std::move(reply)]() mutable {
            reply("late");
            reply("twice");
        });
    };
    const auto write = [](ArgumentWriter& out) {
        out.u16(1);
        out.u16(2);
        out.optionalDictionary(std::nullopt);
    };
    BusMessage reply = peer->call(sessionCall("SendMessageWithCategory", write));
    ArgumentReader in(reply);
    EXPECT_EQ(in.optionalString(), "late");
    threads[0].join();

    session->onSendMessage = [](StringReply) {};  // no answer
    peer->send(sessionCall("SendMessageWithCategory", write));
    const uint64_t cookie = peer->send(sessionCall("FetchDisplayURL"));
    BusMessage next = peer->receive();
    uint64_t answered = 0;
    ASSERT_GE(sd_bus_message_get_reply_cookie(next.get(), &answered), 0);
    EXPECT_EQ(answered, cookie);
    end();
}

TEST_F(ClientConnectionTest, AClientMayGoInTheMiddleOfACall) {
    std::promise<StringReply> asked;
    session->onSendMessage = [&](StringReply reply) { asked.set_value(std::move(reply)); };
    const std::weak_ptr<FakeSession> exported = session;
    bool givenUp = false;
    beforeEnd = [&] { givenUp = exported.expired(); };
    resume();
    peer->send(sessionCall("SendMessageWithCategory", [](ArgumentWriter& out) {
        out.u16(1);
        out.u16(2);
        out.optionalDictionary(std::nullopt);
    }));
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
    for (size_t i = 0; i < kReports; ++i) {
        peer->send(sessionCall("SendMessageWithCategory", [](ArgumentWriter& out) {
            out.u16(1);
            out.u16(2);
            out.optionalDictionary(std::nullopt);
        }));
    }
    peer->flush();
    entered.get_future().wait();
    peer->close();
    gone.set_value();
    ended.get_future().wait();
    EXPECT_EQ(session->calls.size(), kReports);
}

TEST_F(ClientConnectionTest, IssuesExtensionsOnlyThroughAnIssuer) {
    SocketPair sockets;
    auto other = ClientConnection::make(pool.makeStrand(), std::move(sockets.ours), "with issuer");
    other->setExportedObject(session);
    other->setFileExtensionIssuer(std::make_shared<FakeIssuer>());
    std::promise<void> otherEnded;
    other->setInvalidationHandler([&] { otherEnded.set_value(); });
    other->resume();
    BusPeer issued(std::move(sockets.theirs));
    const UniqueFd null(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const auto ask = [&](BusPeer& from, const char* path) {
        BusMessage call = from.newCall(kTelvoradPath, kExtension, "IssueFileExtension");
        ArgumentWriter out(call);
        out.string(path);
        out.file(null.get());
        return from.call(call);
    };
    EXPECT_EQ(errorName(ask(resume(), "/dev/null")), kBusErrorNotSupported);
    EXPECT_EQ(errorName(ask(issued, "/etc/passwd")), kBusErrorInvalidArgs);
    BusMessage reply = ask(issued, "/dev/null");
    ArgumentReader in(reply);
    EXPECT_EQ(in.string(), "token");
    other->invalidate();
    otherEnded.get_future().wait();
    end();
}

// --- To the client ---

TEST_F(ClientConnectionTest, BringsMessagesToTheClientInOrderAndOnceMoreAtTheEnd) {
    LogCapture log;
    resume();
    ASSERT_EQ(errorName(peer->call(sessionCall("StartConfig"))), "");
    const Dictionary info{{"session", 7}};
    connection->sendMessageToClient(info, 12.5, 3, 4, Dictionary{{"k", "v"}});
    beforeEnd = [&] { connection->sendMessageToClient(std::nullopt, 0, 0, 0, std::nullopt); };
    end();

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

TEST_F(ClientConnectionTest, DropsMessagesOfAClientThatDoesNotRead) {
    LogCapture log;
    resume();
    ASSERT_EQ(errorName(peer->call(sessionCall("StartConfig"))), "");
    const Dictionary payload{{"k", std::string(64 << 10, 'x')}};
    for (int i = 0; i < 200; ++i)
        connection->sendMessageToClient(std::nullopt, i, 1, 1, payload);
    log.waitFor("Failed to get remote object proxy: ");
    EXPECT_EQ(errorName(peer->call(sessionCall("StartConfig"))), "");  // it reads again, and is served
    end();
}

}  // namespace
}  // namespace telvora
