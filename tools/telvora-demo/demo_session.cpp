// SPDX-License-Identifier: Apache-2.0
#include "demo_session.h"

#include <future>
#include <stdexcept>

#include "telvora/keys.h"

namespace telvora::demo {
namespace {

constexpr int64_t kClientType = 8;
constexpr int64_t kClientVersion = 3;

// Starts a call with a completion and waits until that has run.
template <typename T, typename Start>
T await(Start start) {
    std::promise<tl::expected<T, CallFailure>> promise;
    auto answered = promise.get_future();
    start([&promise](tl::expected<T, CallFailure> answer) { promise.set_value(std::move(answer)); });
    tl::expected<T, CallFailure> answer = answered.get();
    if (!answer) throw std::runtime_error(answer.error().message);
    if constexpr (!std::is_void_v<T>) return std::move(*answer);
}

}  // namespace

DemoSession::DemoSession(ClientRuntime& runtime, const std::string& socketPath, int64_t sessionID,
                         const std::string& clientName, bool batchEvents) {
    auto session = ClientSession::connect(runtime, socketPath);
    if (!session) throw std::runtime_error(session.error());
    session_ = std::move(*session);
    const Dictionary sessionInfo{{kTelvoraSessionInfoSessionID, sessionID},
                                 {kTelvoraSessionInfoClientType, kClientType},
                                 {kTelvoraSessionInfoClientVersion, kClientVersion},
                                 {kTelvoraSessionInfoRequireUserInfo, true},
                                 {kTelvoraSessionInfoBatchEvent, batchEvents}};
    const Dictionary userInfo{{kTelvoraUserInfoClientName, clientName},
                              {kTelvoraUserInfoServiceName, "demo"}};
    await<void>([&](auto done) { session_->setSessionInfo(sessionInfo, userInfo, {}, std::move(done)); });
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

std::string DemoSession::flush() {
    const auto answer = await<FlushAnswer>([&](auto done) { session_->flushMessages(std::move(done)); });
    return answer.error ? answer.error->description : std::string();
}

void DemoSession::finishAndClose() {
    await<std::optional<std::string>>([&](auto done) { session_->finishSession(std::move(done)); });
    session_->invalidate();
}

}  // namespace telvora::demo
