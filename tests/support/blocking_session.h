// SPDX-License-Identifier: Apache-2.0
//
// BlockingSession: a session through the client library as a test reads best, one call after another. Each
// call waits for its answer, for lab::kPatience at most; a call that gets none throws std::runtime_error.
//
// That library and daemon are not wrong about the wire in the same way, gdbus_client.py shows.
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
    std::optional<PropertyList> hierarchyToken = {};  // as it stands in the session info, of whatever type
    bool aggregates = false;
};

class BlockingSession {
  public:
    // A call that is under way: waits for the answer.
    template <typename T>
    using Pending = std::function<T()>;

    // Connects and tells the daemon what the session is. Throws when the connection fails.
    explicit BlockingSession(const std::string& socketPath, const SessionSettings& settings = {});

    // Tells the daemon anew what the session is, but for `aggregates`.
    void setSessionInfo(const SessionSettings& settings);
    ReportingStates startConfig() { return beginStartConfig()(); }
    ReportingStates fetchStates();
    std::optional<std::string> send(uint16_t category, uint16_t type, const Dictionary& payload = {}) {
        return beginSend(category, type, payload)();
    }
    // With a flag: 1 realtime, 2 promote.
    std::optional<std::string> send(uint16_t category, uint16_t type, const Dictionary& payload,
                                    int64_t flag);
    FlushAnswer flush() { return beginFlush()(); }
    void finish();
    std::string displayURL();
    UploadAnswer uploadLogData(const Array& records);
    // The token for a file that is open, or why there is none.
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
    // While the lock is held, an aggregating session reads no further than to the next message.
    std::unique_lock<std::mutex> stopReading() { return std::unique_lock(mutex_); }

  private:
    std::mutex mutex_;
    std::condition_variable delivered_;
    std::deque<AggregatedMessage> deliveries_;
    ClientRuntime runtime_;
    std::unique_ptr<ClientSession> session_;
};

}  // namespace telvora::test
