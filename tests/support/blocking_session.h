// SPDX-License-Identifier: Apache-2.0
//
// BlockingSession: a session through the client library, one call after another. Each call waits for its
// answer, for kPatience at most. A call without an answer throws std::runtime_error.
//
// gdbus_client.py checks the wire independently of this library.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tl/expected.hpp>

#include "client/client_session.h"

namespace telvora::test {

struct SessionSettings {
    int64_t sessionID = 1;
    int64_t clientType = 8;
    std::optional<PropertyList> hierarchyToken = {};  // as in the session info, of any type
    bool aggregates = false;
};

class BlockingSession {
  public:
    // A started call: waits for the answer.
    template <typename T>
    using Pending = std::function<T()>;

    // Connects and sends the session info. Throws if the connection fails.
    explicit BlockingSession(const std::string& socketPath, const SessionSettings& settings = {});

    // Sends the session info again, except `aggregates`.
    void setSessionInfo(const SessionSettings& settings);
    ReportingStates startConfig() { return beginStartConfig()(); }
    ReportingStates fetchStates();
    std::optional<std::string> send(uint16_t category, uint16_t type, const Dictionary& payload = {}) {
        return beginSend(category, type, payload)();
    }
    // `flag`: 1 realtime, 2 promote.
    std::optional<std::string> send(uint16_t category, uint16_t type, const Dictionary& payload,
                                    int64_t flag);
    FlushAnswer flush() { return beginFlush()(); }
    void finish();
    std::string displayURL();
    UploadAnswer uploadLogData(const Array& records);
    // The token for an open file, or the reason of failure.
    tl::expected<std::string, std::string> issueFileExtension(const std::string& path, int file);
    bool uploadFile(const std::string& url, const std::string& extensionToken = "") {
        return beginUploadFile(url, extensionToken)();
    }

    Pending<ReportingStates> beginStartConfig();
    Pending<std::optional<std::string>> beginSend(uint16_t category, uint16_t type,
                                                  const Dictionary& payload);
    Pending<FlushAnswer> beginFlush();
    Pending<bool> beginUploadFile(const std::string& url, const std::string& extensionToken = "");

    // The next message for the aggregation block.
    AggregatedMessage nextDelivery();
    // While this lock is held, an aggregating session reads only up to the next message.
    std::unique_lock<std::mutex> stopReading() { return std::unique_lock(mutex_); }

  private:
    std::mutex mutex_;
    std::condition_variable delivered_;
    std::deque<AggregatedMessage> deliveries_;
    ClientRuntime runtime_;
    std::unique_ptr<ClientSession> session_;
};

}  // namespace telvora::test
