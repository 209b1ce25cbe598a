// SPDX-License-Identifier: Apache-2.0
//
// World: the servers that a daemon needs, and the daemons under measurement.
#pragma once

#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>

#include "client/client_session.h"
#include "record.h"
#include "telvora-lab/laboratory.h"
#include "tests/support/daemon_process.h"
#include "tests/support/temporary_directory.h"

namespace telvora::bench {

constexpr int64_t kClientType = 8;  // the type whose bag every World serves

class World {
  public:
    // Serves `bag`. Throws std::runtime_error if the servers can't start.
    explicit World(const Dictionary& bag);

    lab::Laboratory& laboratory() { return *laboratory_; }
    // The directory of the daemons' directories run/, state/, config/ and logs/.
    const std::filesystem::path& directory() const { return directory_.path(); }
    // Lets these users' programs reach the daemons' sockets, and entitles them.
    void letIn(std::initializer_list<uid_t> users) const;
    // Starts a daemon with the log level of the field and without quotas, after `change`. Its directories
    // belong to this object, so that a daemon finds its predecessor's files.
    std::unique_ptr<test::DaemonProcess> launch(
        const std::function<void(test::DaemonOptions&)>& change = nullptr) const;
    // Starts one and waits until it listens. Throws std::runtime_error if it does not start.
    std::unique_ptr<test::DaemonProcess> start(
        const std::function<void(test::DaemonOptions&)>& change = nullptr) const;

  private:
    test::TemporaryDirectory directory_;
    std::unique_ptr<lab::Laboratory> laboratory_;
};

// Opens a session, with `info` added to the session info of every session here, and waits for its
// configuration. Throws std::runtime_error if the daemon refuses it or no backend reports.
std::unique_ptr<ClientSession> openSession(ClientRuntime& runtime, const std::string& socketPath,
                                           Dictionary info, ClientSession::Handlers handlers = {});

}  // namespace telvora::bench
