// SPDX-License-Identifier: Apache-2.0
#include "attacks.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <random>
#include <thread>
#include <vector>

#include "attack_tools.h"
#include "protocol/status_interface.h"
#include "telvora/keys.h"
#include "tests/support/bags.h"
#include "tests/support/hostile_descriptors.h"
#include "tests/support/scripted_server.h"

namespace telvora::bench {
namespace {

constexpr size_t kMostDescriptors = 16;  // that may wait for their message
constexpr size_t kLargeMessage = 15'500'000;

// Half a message, no message, or no byte of the protocol, each with sockets whose close(2) waits an hour.
void blockingDescriptors(const std::string& socketPath) {
    const UniqueFd listener = test::silentListener();
    const std::string sockets[] = {
        socketPath, socketPath.substr(0, socketPath.rfind('/') + 1) + kTelvoradStatusSocketName};
    std::vector<int> kept;  // the attacker's own close(2) would wait, too
    for (size_t i = 0; kept.size() < 200; ++i) {
        const std::string& path = sockets[i % 2];
        const UniqueFd connection = i % 3 == 0 ? rawConnection(path) : authenticatedConnection(path);
        if (!connection) continue;
        for (int n = 0; n < 2; ++n)
            kept.push_back(test::lingeringSocket(listener).release());
        test::sendWith(connection.get(), i % 4 < 2 ? "l" : "xxxxxxxxxxxxxxxxxxxx",
                       {kept.end()[-1], kept.end()[-2]});
        if (i > 20) announce();
    }
    holdForEver();
}

std::vector<int> openFiles() {
    std::vector<int> files;
    for (size_t i = 0; i < kMostDescriptors; ++i)
        files.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    return files;
}

void descriptorsOfMalformedMessages(const std::string& socketPath) {
    const std::vector<int> files = openFiles();
    for (;;) {
        const UniqueFd connection = authenticatedConnection(socketPath);
        if (connection) test::sendWith(connection.get(), std::string(32, 'x'), files);
        announce();
    }
}

void descriptorsOfHalfMessages(const std::string& socketPath) {
    const std::vector<int> files = openFiles();
    const std::string half = callWithText(1000).substr(0, 500);
    std::list<UniqueFd> connections;
    for (size_t i = 0; i < 500; ++i) {
        connections.push_back(authenticatedConnection(socketPath));
        if (connections.back()) test::sendWith(connections.back().get(), half, files);
    }
    holdForEver();
}

void halfMessages(const std::string& socketPath) {
    const std::string message = callWithText(kLargeMessage);
    std::list<UniqueFd> connections;
    for (size_t i = 0; i < 200; ++i) {
        connections.push_back(authenticatedConnection(socketPath));
        if (!connections.back()) continue;
        fcntl(connections.back().get(), F_SETFL, O_NONBLOCK);  // the daemon stops to read at the quota
        sendAll(connections.back(), std::string_view(message).substr(0, message.size() - 1));
        if (i > 8) announce();
    }
    holdForEver();
}

void largeMessages(const std::string& socketPath) {
    const std::string message = callWithText(kLargeMessage);
    for (;;) {
        const UniqueFd connection = authenticatedConnection(socketPath);
        if (connection) sendAll(connection, message);
        announce();
    }
}

void largeInfos(const std::string& socketPath) {
    ClientRuntime runtime;
    HostileSession hostile(runtime, socketPath, kOpenType);
    const Dictionary info{{kTelvoraSessionInfoClientType, kOpenType},
                          {kTelvoraSessionInfoSessionID, 2},
                          {"padding", std::string(kLargeMessage / 2, 'x')},
                          {kTelvoraSessionInfoHierarchyToken,
                           Dictionary{{kTelvoraHierarchyTokenTokenID, std::string(kLargeMessage / 2, 'y')},
                                      {kTelvoraHierarchyTokenLevel, 0}}}};
    repeat(2, [&](auto done) {
        hostile.session().setSessionInfo(info, {}, {}, [done](const auto& answer) {
            announce();
            done(answer.has_value());
        });
    });
}

void waitersForBags(const std::string& socketPath) {
    ClientRuntime runtime;
    std::list<HostileSession> sessions;
    for (size_t i = 0; i < 270; ++i)
        sessions.emplace_back(runtime, socketPath, kHangingTypes[i % 2]).session().startConfig({});
    holdForEver();
}

void logDataForASlowServer(const std::string& socketPath) {
    ClientRuntime runtime;
    std::list<HostileSession> sessions;
    for (size_t i = 0; i < 300; ++i) {
        sessions.emplace_back(runtime, socketPath, kLogDataType).session().startConfig({});
        sessions.back().session().uploadLogData({std::string(1000, 'x')}, {});
    }
    holdForEver();
}

void inventedNames(const std::string& socketPath) {
    ClientRuntime runtime;
    std::mt19937 random(static_cast<uint32_t>(getpid()));
    for (;;) {
        const size_t size = random() % 4 == 0 ? 900'000 : 50'000;
        HostileSession session(runtime, socketPath, kOpenType, {},
                               std::string(size, 'x') + std::to_string(random()));
        session.waitUntilConfigured();
        announce();
    }
}

void fetchesOfStates(const std::string& socketPath) {
    ClientRuntime runtime;
    std::vector<std::unique_ptr<HostileSession>> sessions;
    for (size_t i = 0; i < 256; ++i) {
        const Dictionary token{{kTelvoraHierarchyTokenTokenID, "deep"}, {kTelvoraHierarchyTokenLevel, i}};
        sessions.push_back(std::make_unique<HostileSession>(
            runtime, socketPath, kOpenType, Dictionary{{kTelvoraSessionInfoHierarchyToken, token}}));
    }
    for (const auto& session : sessions)
        session->waitUntilConfigured();
    announce();
    size_t next = 0;
    repeat(400, [&](auto done) {
        const Dictionary user{{kTelvoraUserInfoClientName, next / sessions.size() % 2 == 0 ? "even" : "odd"}};
        sessions[next++ % sessions.size()]->session().fetchStates(
            user, [done](const auto& answer) { done(answer.has_value()); });
    });
}

// Reports of this size; realtime ones are posted and logged at once.
void reports(const std::string& socketPath, size_t size, size_t window, bool realtime) {
    ClientRuntime runtime;
    HostileSession hostile(runtime, socketPath, kOpenType);
    hostile.waitUntilConfigured();
    announce();
    Dictionary message{{kTelvoraMessageParametersCategory, 1},
                       {kTelvoraMessageParametersType, 1},
                       {kTelvoraMessageParametersFlag, realtime ? 1 : 0},
                       {kTelvoraMessageParametersPayload, Dictionary{{"text", std::string(size, 'x')}}}};
    repeat(window, [&](auto done) {
        hostile.session().sendMessage(message, [done](const auto& answer) { done(answer.has_value()); });
    });
}

void smallReports(const std::string& socketPath) {
    reports(socketPath, 20, 512, false);
}
void largeReports(const std::string& socketPath) {
    reports(socketPath, 1'500'000, 8, false);
}
void loggedReports(const std::string& socketPath) {
    reports(socketPath, 60'000, 16, true);
}

void postsToDrippingServers(const std::string& socketPath) {
    ClientRuntime runtime;
    std::list<HostileSession> sessions;
    for (size_t i = 0; i < std::size(kDrippingNames) * 12; ++i) {
        HostileSession& hostile = sessions.emplace_back(runtime, socketPath, kDrippingType, Dictionary{},
                                                        kDrippingNames[i % std::size(kDrippingNames)]);
        hostile.waitUntilConfigured();
        const Dictionary payload{{"text", "x"}};
        hostile.session().sendMessage(1, 1, payload, {});
        hostile.session().flushMessages({});
    }
    holdForEver();
}

void refusedConnections(const std::string& socketPath) {
    for (;;) {
        rawConnection(socketPath);
        announce();
    }
}

void silentConnections(const std::string& socketPath) {
    std::list<UniqueFd> connections;
    for (size_t i = 0;; ++i) {
        connections.push_back(rawConnection(socketPath));
        if (connections.size() < 1100) continue;
        connections.pop_front();
        announce();
    }
}

// For comparison: what the machine costs the canary when another user computes.
void busyProcessors(const std::string&) {
    announce();
    std::atomic<unsigned> turns = 0;
    std::vector<std::jthread> threads(std::max(1U, std::thread::hardware_concurrency()));
    for (std::jthread& thread : threads)
        thread = std::jthread([&turns] {
            while (true)
                ++turns;
        });
    holdForEver();
}

constexpr Attack kAttacks[] = {
    {"busy-processors", "no attack: all processors compute, nothing is sent", false, busyProcessors},
    {"blocking-descriptors", "descriptors whose close(2) waits an hour", false, blockingDescriptors},
    {"malformed-descriptors", "16 descriptors with bytes that are no message", true,
     descriptorsOfMalformedMessages},
    {"half-descriptors", "500 half messages with 16 descriptors each", true, descriptorsOfHalfMessages},
    {"half-messages", "200 messages of 15.5 MB, each without its last byte", true, halfMessages},
    {"large-messages", "messages of 15.5 MB, one after the other", true, largeMessages},
    {"large-infos", "session infos and tokens of 7.7 MB each", true, largeInfos},
    {"waiters-for-bags", "270 sessions whose bag server hangs", true, waitersForBags},
    {"slow-log-data", "300 uploads of log data to a server that drips", true, logDataForASlowServer},
    {"dripping-servers", "72 posts to six servers that drip", true, postsToDrippingServers},
    {"invented-names", "sessions with client names of 50 and 900 kB", true, inventedNames},
    {"deep-hierarchy", "400 FetchStates under way in a hierarchy of 256", true, fetchesOfStates},
    {"logged-reports", "realtime reports of 60 kB, each logged", true, loggedReports},
    {"large-reports", "reports of 1.5 MB", true, largeReports},
    {"small-reports", "reports of 20 bytes", true, smallReports},
    {"silent-connections", "1100 connections without a byte, in turn", true, silentConnections},
    {"refused-connections", "connections without the entitlement", false, refusedConnections},
};

}  // namespace

std::span<const Attack> allAttacks() {
    return kAttacks;
}

const Attack* attackNamed(const std::string& name) {
    const auto* found = std::find_if(std::begin(kAttacks), std::end(kAttacks),
                                     [&](auto& attack) { return attack.name == name; });
    return found != std::end(kAttacks) ? found : nullptr;
}

struct AttackersServers::Drippers {
    int drips;
    std::chrono::milliseconds pause;
    std::list<test::ScriptedServer> servers = {};

    std::string add() {
        const auto script = [drips = drips, pause = pause](test::ScriptedServer::Connection& connection) {
            if (connection.readRequest().empty()) return;
            connection.send("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " +
                            std::to_string(drips) + "\r\n\r\n");
            for (int i = 0; i < drips && !connection.waitForEnd(pause); ++i)
                connection.send("x");
        };
        return servers.emplace_back(script).url();
    }
};

AttackersServers::AttackersServers(World& world, int drips, std::chrono::milliseconds pause)
    : world_(world), drippers_(new Drippers{drips, pause}) {
    lab::Laboratory& laboratory = world.laboratory();
    const auto bag = [](Array entries) {
        return test::bagWithBackends({{"httpPost2", Dictionary{{"clients", std::move(entries)}}}});
    };
    Array dripping;
    for (const char* name : kDrippingNames) {
        const std::string url = drippers_->add();
        dripping.emplace_back(test::openClientEntry({{"client", name}, {"post_url", url}}));
    }
    laboratory.setBag("fenlow", bag(std::move(dripping)));
    laboratory.setBag("tamsel", bag({test::openClientEntry({{"custom_clientId", true}})}));
    laboratory.setBag("corvane",
                      test::bagWithBackends({{"dashboard", Dictionary{{"ip", "127.0.0.1"},
                                                                      {"port", "@dashboard_port@"},
                                                                      {"reliable", 0},
                                                                      {"post_url", drippers_->add()}}}}));
    letBagsHang(true);
}

AttackersServers::~AttackersServers() {
    letBagsHang(false);
}

void AttackersServers::letBagsHang(bool hang) {
    for (const char* name : {"orbel", "vantor"})
        world_.laboratory().bags().setFault(name, hang ? lab::BagFault::hold : lab::BagFault::none);
    if (!hang) world_.laboratory().bags().releaseHeld();
}

}  // namespace telvora::bench
