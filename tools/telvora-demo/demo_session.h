// SPDX-License-Identifier: Apache-2.0
//
// A session through the client library, one call after another: what a small client looks like that has time
// to wait.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "client/client_session.h"

namespace telvora::demo {

class DemoSession {
  public:
    // Connects, tells the daemon what the session is, and waits for its configuration. All operations wait
    // for the daemon's answer, and throw std::runtime_error where there is none.
    DemoSession(ClientRuntime& runtime, const std::string& socketPath, int64_t sessionID,
                const std::string& clientName, bool batchEvents);

    // The backends that report.
    const ReportingStates& states() const { return states_; }
    // `flag`: 1 realtime, 2 promote.
    void send(uint16_t category, uint16_t type, const Dictionary& payload, int64_t flag);
    // The daemon's error, or "".
    std::string flush();
    // Sends the finish message and ends the connection.
    void finishAndClose();

  private:
    std::unique_ptr<ClientSession> session_;
    ReportingStates states_;
};

}  // namespace telvora::demo
