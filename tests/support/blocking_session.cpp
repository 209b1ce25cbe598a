// SPDX-License-Identifier: Apache-2.0
#include "tests/support/blocking_session.h"

#include <fcntl.h>

#include <stdexcept>

#include "telvora/keys.h"
#include "tests/support/await.h"

namespace telvora::test {
namespace {

const Dictionary kUserInfo{{kTelvoraUserInfoClientName, "tester"},
                           {kTelvoraUserInfoServiceName, "integration"}};

}  // namespace

BlockingSession::BlockingSession(const std::string& socketPath, const SessionSettings& settings) {
    ClientSession::Handlers handlers;
    if (settings.aggregates) {
        handlers.aggregationBlock = [this](AggregatedMessage message) {
            const std::lock_guard lock(mutex_);
            deliveries_.push_back(std::move(message));
            delivered_.notify_all();
        };
    }
    auto session = ClientSession::connect(runtime_, socketPath, std::move(handlers));
    if (!session) throw std::runtime_error(session.error());
    session_ = std::move(*session);
    setSessionInfo(settings);
}

void BlockingSession::setSessionInfo(const SessionSettings& settings) {
    Dictionary info{{kTelvoraSessionInfoSessionID, settings.sessionID},
                    {kTelvoraSessionInfoClientType, settings.clientType},
                    {kTelvoraSessionInfoClientVersion, 3},
                    {kTelvoraSessionInfoRequireUserInfo, true},
                    {kTelvoraSessionInfoBatchEvent, true}};
    if (settings.hierarchyToken) info.set(kTelvoraSessionInfoHierarchyToken, *settings.hierarchyToken);
    await<void>([&](auto done) { session_->setSessionInfo(info, kUserInfo, {}, done); });
}

BlockingSession::Pending<ReportingStates> BlockingSession::beginStartConfig() {
    return begin<ReportingStates>([&](auto done) { session_->startConfig(done); });
}

ReportingStates BlockingSession::fetchStates() {
    return await<ReportingStates>([&](auto done) { session_->fetchStates(kUserInfo, done); });
}

BlockingSession::Pending<std::optional<std::string>> BlockingSession::beginSend(uint16_t category,
                                                                                uint16_t type,
                                                                                const Dictionary& payload) {
    return begin<std::optional<std::string>>(
        [&](auto done) { session_->sendMessage(category, type, payload, done); });
}

std::optional<std::string> BlockingSession::send(uint16_t category, uint16_t type, const Dictionary& payload,
                                                 int64_t flag) {
    const Dictionary message{{kTelvoraMessageParametersCategory, int64_t{category}},
                             {kTelvoraMessageParametersType, int64_t{type}},
                             {kTelvoraMessageParametersPayload, payload},
                             {kTelvoraMessageParametersFlag, flag}};
    return await<std::optional<std::string>>([&](auto done) { session_->sendMessage(message, done); });
}

BlockingSession::Pending<FlushAnswer> BlockingSession::beginFlush() {
    return begin<FlushAnswer>([&](auto done) { session_->flushMessages(done); });
}

void BlockingSession::finish() {
    await<std::optional<std::string>>([&](auto done) { session_->finishSession(done); });
}

std::string BlockingSession::displayURL() {
    return await<std::string>([&](auto done) { session_->fetchDisplayURL(done); });
}

UploadAnswer BlockingSession::uploadLogData(const Array& records) {
    return await<UploadAnswer>([&](auto done) { session_->uploadLogData(records, done); });
}

tl::expected<std::string, std::string> BlockingSession::issueFileExtension(const std::string& path,
                                                                           int file) try {
    return await<std::string>([&](auto done) {
        session_->issueFileExtension(path, UniqueFd(fcntl(file, F_DUPFD_CLOEXEC, 0)), done);
    });
} catch (const std::runtime_error& refused) {
    return tl::unexpected<std::string>(refused.what());
}

BlockingSession::Pending<bool> BlockingSession::beginUploadFile(const std::string& url,
                                                                const std::string& extensionToken) {
    return begin<bool>([&](auto done) { session_->uploadFile(url, extensionToken, done); });
}

AggregatedMessage BlockingSession::nextDelivery() {
    std::unique_lock lock(mutex_);
    if (!delivered_.wait_for(lock, kPatience, [this] { return !deliveries_.empty(); }))
        throw std::runtime_error("no message came");
    AggregatedMessage delivery = std::move(deliveries_.front());
    deliveries_.pop_front();
    return delivery;
}

}  // namespace telvora::test
