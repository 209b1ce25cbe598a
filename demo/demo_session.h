// SPDX-License-Identifier: Apache-2.0
//
// A session through the client library, one call after another: what a small client looks like that has time
// to wait.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "client/client_session.h"
#include "script.h"

namespace telvora::demo {

class DemoSession {
  public:
    // Connects, tells the daemon what the session is, and waits for its configuration. All operations wait
    // for the daemon's answer, and throw std::runtime_error where there is none.
    DemoSession(ClientRuntime& runtime, const std::string& socketPath, int64_t sessionID,
                const std::string& clientName, bool batchEvents);
    // The same at the top of a hierarchy, with an aggregation block.
    DemoSession(ClientRuntime& runtime, const std::string& socketPath, int64_t sessionID,
                const std::string& clientName, const std::string& hierarchyToken,
                std::function<void(AggregatedMessage message)> aggregationBlock);

    // A session one level below.
    DemoSession child(uint32_t sessionID, const std::string& clientName) const;

    // The backends that report.
    const ReportingStates& states() const { return states_; }
    // `flag`: 1 realtime, 2 promote.
    void send(uint16_t category, uint16_t type, const Dictionary& payload, int64_t flag);
    // Sends part of a script.
    void sendAll(const std::vector<Report>& reports, size_t from, size_t to);
    // The daemon's error, or "".
    std::string flush();
    // Whether the file has been uploaded. The daemon reads it through the descriptor that it is given.
    bool upload(const std::string& path);
    void finish();
    // Sends the finish message and ends the connection.
    void finishAndClose();

  private:
    explicit DemoSession(std::unique_ptr<ClientSession> session) : session_(std::move(session)) {}
    void configure(const Dictionary& sessionInfo, const std::string& clientName);
    void start();

    std::unique_ptr<ClientSession> session_;
    ReportingStates states_;
};

}  // namespace telvora::demo
