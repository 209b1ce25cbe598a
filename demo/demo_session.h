// SPDX-License-Identifier: Apache-2.0
//
// A session through the client library, as a small client that may block uses it: one call after another.
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
    // Connects, sends the session info and waits for the configuration. All operations wait for the daemon's
    // answer, and throw std::runtime_error without one.
    DemoSession(ClientRuntime& runtime, const std::string& socketPath, int64_t sessionID,
                const std::string& clientName, bool batchEvents);
    // Opens a session at the top of a hierarchy, with an aggregation block.
    DemoSession(ClientRuntime& runtime, const std::string& socketPath, int64_t sessionID,
                const std::string& clientName, const std::string& hierarchyToken,
                std::function<void(AggregatedMessage message)> aggregationBlock);

    // Opens a session one level below.
    DemoSession child(uint32_t sessionID, const std::string& clientName) const;

    // The names of the backends that report.
    const ReportingStates& states() const { return states_; }
    // `flag`: 1 realtime, 2 promote.
    void send(uint16_t category, uint16_t type, const Dictionary& payload, int64_t flag);
    // Sends a client's part of the script.
    void sendAll(const std::vector<Report>& reports, size_t from, size_t to);
    // The daemon's error, or "".
    std::string flush();
    // Whether the file has been uploaded. The daemon reads the descriptor that the library passes.
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
