// SPDX-License-Identifier: Apache-2.0
//
// BlockingSession: a session as a test reads best, one call after another. Each call waits for its answer,
// for lab::kPatience at most; a call that gets none throws std::runtime_error.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tl/expected.hpp>
#include <utility>
#include <vector>

#include "platform/property_list.h"
#include "protocol/telvora_error.h"

namespace telvora::test {

struct SessionSettings {
    int64_t sessionID = 1;
    int64_t clientType = 8;
    int64_t clientVersion = 3;
    bool batchEvents = true;
    bool requireUserInfo = true;
    std::string clientName = "tester";  // empty: no user info
    std::string serviceName = "integration";
    std::optional<PropertyList> hierarchyToken;  // as it stands in the session info, of whatever type
    bool aggregates = false;

    void setHierarchy(const std::string& token, int64_t level);
};

// A message for the aggregation block.
struct Delivery {
    std::optional<Dictionary> sessionInfo;
    double timestamp = 0;
    uint16_t category = 0;
    uint16_t type = 0;
    std::optional<Dictionary> payload;
};

using States = std::optional<std::vector<std::string>>;
using UploadAnswer = std::pair<bool, std::optional<TelvoraError>>;
using FlushAnswer = std::pair<std::optional<std::string>, std::optional<TelvoraError>>;

class BlockingSession {
  public:
    // Connects and tells the daemon what the session is. Throws when the connection fails.
    explicit BlockingSession(const std::string& socketPath, const SessionSettings& settings = {});
    // Ends the connection.
    ~BlockingSession();
    BlockingSession(const BlockingSession&) = delete;
    BlockingSession& operator=(const BlockingSession&) = delete;

    // Tells the daemon anew what the session is.
    void setSessionInfo(const SessionSettings& settings);
    States startConfig();
    States fetchStates();
    std::optional<std::string> send(uint16_t category, uint16_t type, const Dictionary& payload);
    // With a flag: 1 realtime, 2 promote.
    std::optional<std::string> send(uint16_t category, uint16_t type, const Dictionary& payload,
                                    int64_t flag);
    FlushAnswer flush();
    std::optional<std::string> finish();
    std::string displayURL();
    UploadAnswer uploadLogData(const Array& records);
    // The token for a file that is open, or why there is none.
    tl::expected<std::string, std::string> issueFileExtension(const std::string& path, int file);
    bool uploadFile(const std::string& url, const std::string& extensionToken = "");

    // Starts a call without waiting; the function that is returned waits for the answer.
    std::function<States()> beginStartConfig();
    std::function<FlushAnswer()> beginFlush();
    std::function<bool()> beginUploadFile(const std::string& url, const std::string& extensionToken = "");

    // The next message for the aggregation block. Between the calls of this object nothing is read: a session
    // that is left alone is a client that has stopped reading.
    Delivery nextDelivery();
    // Answers that have been read and that nobody has waited for.
    size_t unclaimedAnswers() const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace telvora::test
