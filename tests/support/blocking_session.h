// SPDX-License-Identifier: Apache-2.0
//
// BlockingSession: a session through the client library, one call after another. Each call waits for its
// answer, for kPatience at most. A call without an answer throws std::runtime_error. A function begin...()
// starts its call, and returns a function that waits for the answer.
//
// gdbus_client.py checks the wire independently of this library.
#pragma once

#include <fcntl.h>

#include <condition_variable>
#include <deque>
#include <mutex>

#include "telvora/keys.h"
#include "tests/support/await.h"

namespace telvora::test {

struct SessionSettings {
    int64_t sessionID = 1;
    int64_t clientType = 8;
    std::optional<PropertyList> hierarchyToken = {};  // as in the session info, of any type
    bool aggregates = false;
};

inline Dictionary hierarchyToken(const PropertyList& tokenID, const PropertyList& level) {
    return {{kTelvoraHierarchyTokenTokenID, tokenID}, {kTelvoraHierarchyTokenLevel, level}};
}

class BlockingSession {
  public:
    using Text = std::optional<std::string>;

    // Connects and sends the session info. Throws if the connection fails.
    explicit BlockingSession(const std::string& socketPath, const SessionSettings& settings = {}) {
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

    // Sends the session info again, except `aggregates`.
    void setSessionInfo(const SessionSettings& settings) {
        Dictionary info{{kTelvoraSessionInfoSessionID, settings.sessionID},
                        {kTelvoraSessionInfoClientType, settings.clientType},
                        {kTelvoraSessionInfoClientVersion, 3},
                        {kTelvoraSessionInfoRequireUserInfo, true},
                        {kTelvoraSessionInfoBatchEvent, true}};
        if (settings.hierarchyToken) info.set(kTelvoraSessionInfoHierarchyToken, *settings.hierarchyToken);
        started<void>(&ClientSession::setSessionInfo, info, user_, std::vector<std::string>())();
    }
    auto beginStartConfig() { return started<ReportingStates>(&ClientSession::startConfig); }
    ReportingStates startConfig() { return beginStartConfig()(); }
    ReportingStates fetchStates() { return started<ReportingStates>(&ClientSession::fetchStates, user_)(); }
    auto beginSend(uint16_t category, uint16_t type, const Dictionary& payload) {
        return begin<Text>([&](auto done) { session_->sendMessage(category, type, payload, done); });
    }
    // `flag`: 1 realtime, 2 promote.
    Text send(uint16_t category, uint16_t type, const Dictionary& payload = {}, int64_t flag = 0) {
        const Dictionary message{{kTelvoraMessageParametersCategory, int64_t{category}},
                                 {kTelvoraMessageParametersType, int64_t{type}},
                                 {kTelvoraMessageParametersPayload, payload},
                                 {kTelvoraMessageParametersFlag, flag}};
        return await<Text>([&](auto done) { session_->sendMessage(message, done); });
    }
    auto beginFlush() { return started<FlushAnswer>(&ClientSession::flushMessages); }
    FlushAnswer flush() { return beginFlush()(); }
    Text finish() { return started<Text>(&ClientSession::finishSession)(); }
    std::string displayURL() { return started<std::string>(&ClientSession::fetchDisplayURL)(); }
    UploadAnswer uploadLogData(const Array& records) {
        return started<UploadAnswer>(&ClientSession::uploadLogData, records)();
    }
    // The token for an open file, or the reason of failure.
    tl::expected<std::string, std::string> issueFileExtension(const std::string& path, int file) try {
        return started<std::string>(&ClientSession::issueFileExtension, path,
                                    UniqueFd(fcntl(file, F_DUPFD_CLOEXEC, 0)))();
    } catch (const std::runtime_error& refused) {
        return tl::unexpected<std::string>(refused.what());
    }
    auto beginUploadFile(const std::string& url, const std::string& extensionToken = "") {
        return started<bool>(&ClientSession::uploadFile, url, extensionToken);
    }
    bool uploadFile(const std::string& url, const std::string& extensionToken = "") {
        return beginUploadFile(url, extensionToken)();
    }

    // The next message for the aggregation block.
    AggregatedMessage nextDelivery() {
        std::unique_lock lock(mutex_);
        if (!delivered_.wait_for(lock, kPatience, [this] { return !deliveries_.empty(); }))
            throw std::runtime_error("no message came");
        AggregatedMessage delivery = std::move(deliveries_.front());
        deliveries_.pop_front();
        return delivery;
    }
    // While this lock is held, an aggregating session reads only up to the next message.
    std::unique_lock<std::mutex> stopReading() { return std::unique_lock(mutex_); }

  private:
    template <typename T, typename... Arguments>
    std::function<T()> started(auto operation, Arguments... arguments) {
        return begin<T>(
            [&](auto done) { std::invoke(operation, *session_, std::move(arguments)..., std::move(done)); });
    }

    const Dictionary user_{{kTelvoraUserInfoClientName, "tester"},
                           {kTelvoraUserInfoServiceName, "integration"}};
    std::mutex mutex_;
    std::condition_variable delivered_;
    std::deque<AggregatedMessage> deliveries_;
    ClientRuntime runtime_;
    std::unique_ptr<ClientSession> session_;
};

}  // namespace telvora::test
