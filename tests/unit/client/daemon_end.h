// SPDX-License-Identifier: Apache-2.0
//
// The daemon's end of a session under test: a socket whose connections the test takes itself, one at a time.
#pragma once

#include <gtest/gtest.h>

#include <future>

#include "client/client_session.h"
#include "connections/client_connection.h"
#include "tests/support/fake_session.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/unix_socket.h"

namespace telvora::test {

struct DaemonEnd : testing::Test {
    void listen() { listener = boundSocket(socketPath, SOCK_STREAM | SOCK_NONBLOCK); }
    // Accepts the next connection with a new daemon; false if there is no connection.
    bool accept() {
        UniqueFd socket(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!socket) return false;
        daemon = std::make_shared<FakeSession>();
        ended = std::make_shared<std::promise<void>>();
        connection = ClientConnection::make(pool.makeStrand(), std::move(socket), "client");
        connection->setExportedObject(daemon);
        connection->setInvalidationHandler([ended = ended] { ended->set_value(); });
        connection->resume();
        return true;
    }
    void hangUp() {
        if (!connection) return;
        connection->invalidate();
        ended->get_future().wait();
        connection = nullptr;
    }

    // The first members, so that they outlive the strands that they make.
    WorkPool pool{1};
    ClientRuntime runtime;
    TemporaryDirectory directory;
    std::string socketPath = directory.path() / "socket";
    UniqueFd listener;
    std::shared_ptr<FakeSession> daemon;
    std::shared_ptr<ClientConnection> connection;
    std::shared_ptr<std::promise<void>> ended;
};

}  // namespace telvora::test
