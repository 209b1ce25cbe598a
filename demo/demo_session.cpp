// SPDX-License-Identifier: Apache-2.0
#include "demo_session.h"

#include <fcntl.h>

#include <stdexcept>

#include "telvora/keys.h"
#include "tests/support/await.h"

namespace telvora::demo {
namespace {

using test::await;

constexpr int64_t kClientType = 8;
constexpr int64_t kClientVersion = 3;

std::unique_ptr<ClientSession> connected(tl::expected<std::unique_ptr<ClientSession>, std::string> session) {
    if (!session) throw std::runtime_error(session.error());
    return std::move(*session);
}

Dictionary sessionInfoFor(int64_t sessionID, bool batchEvents) {
    return {{kTelvoraSessionInfoSessionID, sessionID},
            {kTelvoraSessionInfoClientType, kClientType},
            {kTelvoraSessionInfoClientVersion, kClientVersion},
            {kTelvoraSessionInfoRequireUserInfo, true},
            {kTelvoraSessionInfoBatchEvent, batchEvents}};
}

Dictionary userInfoFor(const std::string& clientName) {
    return {{kTelvoraUserInfoClientName, clientName}, {kTelvoraUserInfoServiceName, "demo"}};
}

}  // namespace

DemoSession::DemoSession(ClientRuntime& runtime, const std::string& socketPath, int64_t sessionID,
                         const std::string& clientName, bool batchEvents)
    : session_(connected(ClientSession::connect(runtime, socketPath))) {
    configure(sessionInfoFor(sessionID, batchEvents), clientName);
    start();
}

DemoSession::DemoSession(ClientRuntime& runtime, const std::string& socketPath, int64_t sessionID,
                         const std::string& clientName, const std::string& hierarchyToken,
                         std::function<void(AggregatedMessage message)> aggregationBlock)
    : session_(
          connected(ClientSession::connect(runtime, socketPath, {std::move(aggregationBlock), nullptr}))) {
    Dictionary sessionInfo = sessionInfoFor(sessionID, true);
    sessionInfo.set(
        kTelvoraSessionInfoHierarchyToken,
        Dictionary{{kTelvoraHierarchyTokenTokenID, hierarchyToken}, {kTelvoraHierarchyTokenLevel, 0}});
    configure(sessionInfo, clientName);
    start();
}

DemoSession DemoSession::child(uint32_t sessionID, const std::string& clientName) const {
    std::unique_ptr<ClientSession> session;
    await<void>([&](auto done) {
        session = connected(session_->child(sessionID, userInfoFor(clientName), std::move(done)));
    });
    DemoSession child(std::move(session));
    child.start();
    return child;
}

void DemoSession::configure(const Dictionary& sessionInfo, const std::string& clientName) {
    await<void>([&](auto done) {
        session_->setSessionInfo(sessionInfo, userInfoFor(clientName), {}, std::move(done));
    });
}

void DemoSession::start() {
    states_ = await<ReportingStates>([&](auto done) { session_->startConfig(std::move(done)); });
}

void DemoSession::send(uint16_t category, uint16_t type, const Dictionary& payload, int64_t flag) {
    await<std::optional<std::string>>([&](auto done) {
        if (flag == 0) return session_->sendMessage(category, type, payload, std::move(done));
        session_->sendMessage({{kTelvoraMessageParametersCategory, int64_t{category}},
                               {kTelvoraMessageParametersType, int64_t{type}},
                               {kTelvoraMessageParametersPayload, payload},
                               {kTelvoraMessageParametersFlag, flag}},
                              std::move(done));
    });
}

void DemoSession::sendAll(const std::vector<Report>& reports, size_t from, size_t to) {
    for (size_t i = from; i < to; ++i)
        send(reports[i].category, reports[i].type, reports[i].payload, reports[i].flag);
}

std::string DemoSession::flush() {
    const auto answer = await<FlushAnswer>([&](auto done) { session_->flushMessages(std::move(done)); });
    return answer.error ? answer.error->description : std::string();
}

bool DemoSession::upload(const std::string& path) {
    UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const auto token = await<std::string>(
        [&](auto done) { session_->issueFileExtension(path, std::move(file), std::move(done)); });
    return await<bool>([&](auto done) { session_->uploadFile("file://" + path, token, std::move(done)); });
}

void DemoSession::finish() {
    await<std::optional<std::string>>([&](auto done) { session_->finishSession(std::move(done)); });
}

void DemoSession::finishAndClose() {
    finish();
    session_->invalidate();
}

}  // namespace telvora::demo
