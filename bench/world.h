// SPDX-License-Identifier: Apache-2.0
//
// World: the servers that a daemon needs, and the daemons that are measured.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "client/client_session.h"
#include "telvora-lab/laboratory.h"
#include "tests/support/daemon_process.h"
#include "tests/support/temporary_directory.h"

namespace telvora::bench {

constexpr int64_t kClientType = 8;  // whose bag every World serves
constexpr char kNumberKey[] = "n";  // of each report's payload: its number, by which a World counts it

class World {
  public:
    // Serves `bag`. Throws std::runtime_error when there can be no servers.
    explicit World(const Dictionary& bag);

    lab::Laboratory& laboratory() { return *laboratory_; }
    // A daemon that logs as in the field, without quotas, after `change`; the directories are this object's,
    // so that a daemon finds what the one before it left.
    std::unique_ptr<lab::DaemonProcess> launch(
        const std::function<void(lab::DaemonOptions&)>& change = nullptr) const;
    // The same, once it listens. Throws std::runtime_error when it does not start.
    std::unique_ptr<lab::DaemonProcess> start(
        const std::function<void(lab::DaemonOptions&)>& change = nullptr) const;

  private:
    lab::TemporaryDirectory directory_;
    std::unique_ptr<lab::Laboratory> laboratory_;
};

// Opens a session, with `info` added to what every session here says of itself, and waits for its
// configuration. Throws std::runtime_error when the daemon refuses it or it has no backend that reports.
std::unique_ptr<ClientSession> openSession(ClientRuntime& runtime, const std::string& socketPath,
                                           Dictionary info, ClientSession::Handlers handlers = {});

}  // namespace telvora::bench
