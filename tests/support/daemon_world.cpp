// SPDX-License-Identifier: Apache-2.0
#include "tests/support/daemon_world.h"

#include <unistd.h>

#include "tests/support/bags.h"
#include "tests/support/posted_message.h"
#include "tests/support/signed_document.h"

namespace telvora::test {

static bool isBagRequest(const HttpRequest& request) {
    return request.method == "GET";
}

void FakeConnection::invalidate() {
    session_.reset();
    const auto handler = std::exchange(invalidated_, {});
    if (handler) handler();
    if (const auto gone = std::exchange(gone_, {})) gone();
}

DaemonWorld::DaemonWorld(Dictionary deviceProperties) : BackendRig(std::move(deviceProperties)) {
    directory.write("framework/publicKey.der", bagKey().publicKeyToDer());
    const Dictionary grant{
        {"User", std::to_string(getuid())},
        {"Entitlements", Dictionary{{"com.zandor.private.telvorad", true}}},
    };
    directory.write("config/entitlements.d/test.plist", serialized(grant));
    setConsent(true);
    serveBag(std::nullopt);
}

void DaemonWorld::serveBag(std::optional<Dictionary> innerBag) {
    const HttpResult bag = innerBag ? FakeHttpClient::response(200, signedDocument(*innerBag))
                                    : FakeHttpClient::failure("no bag server");
    http.setHandler([bag](const HttpRequest& request) {
        return isBagRequest(request) ? bag : FakeHttpClient::response(200);
    });
}

Dictionary DaemonWorld::reportingBag(const Dictionary& changes) {
    Dictionary client{{"filters", Array()},
                      {"sampling_threshold", 1.0},
                      {"locale_whitelist", "CH"},
                      {"post_url", "https://reports.example/events"}};
    client.merge(changes);
    return bagWithClients({std::move(client)});
}

std::shared_ptr<FakeConnection> DaemonWorld::connect() {
    auto connection = std::make_shared<FakeConnection>();
    Peer own;
    own.pid = getpid();
    own.uid = getuid();
    own.gid = getgid();
    agent.listener(connection, own);
    return connection;
}

std::shared_ptr<FakeConnection> DaemonWorld::connectConfigured(
    uint32_t sessionID, std::optional<std::pair<std::string, int>> hierarchy, bool aggregates) {
    auto connection = connect();
    connection->session().setSessionInfo(sessionInfoFor(sessionID, std::move(hierarchy)),
                                         userInfoOf("client", "service"), {}, aggregates);
    connection->session().startConfigWithCompletionHandler([](const auto&) {});
    return connection;
}

std::vector<Dictionary> DaemonWorld::postedEvents() const {
    std::vector<Dictionary> events;
    for (const HttpRequest& request : http.requests()) {
        if (isBagRequest(request)) continue;
        const lab::EventMessage message = messageOf(request);
        events.insert(events.end(), message.events->begin(), message.events->end());
    }
    return events;
}

size_t DaemonWorld::bagRequests() const {
    const auto requests = http.requests();
    return static_cast<size_t>(std::count_if(requests.begin(), requests.end(), isBagRequest));
}

bool DaemonWorld::isIdle() {
    runLoop.restart();
    runLoop.poll();
    return idleTimerRuns;
}

Dictionary sessionInfoFor(uint32_t sessionID, std::optional<std::pair<std::string, int>> hierarchy) {
    Dictionary info{{kTelvoraSessionInfoSessionID, sessionID},
                    {kTelvoraSessionInfoClientType, 7},
                    {kTelvoraSessionInfoRequireUserInfo, true}};
    if (hierarchy) {
        info.set(kTelvoraSessionInfoHierarchyToken,
                 Dictionary{{kTelvoraHierarchyTokenTokenID, hierarchy->first},
                            {kTelvoraHierarchyTokenLevel, hierarchy->second}});
    }
    return info;
}

}  // namespace telvora::test
