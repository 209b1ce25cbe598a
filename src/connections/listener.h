// SPDX-License-Identifier: Apache-2.0
//
// Listener: accepts connections from a listening socket and passes each on with its peer's credentials.
//
// A look at a peer costs files. The connections that wait for it wait in a line for each user, and users take
// turns: a user who connects in a loop delays only the own connections.
#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>
#include <deque>
#include <functional>
#include <list>
#include <optional>

#include "access/peer.h"
#include "access/user_quotas.h"
#include "async/descriptor_closers.h"
#include "async/handler_memory.h"
#include "async/loop_task.h"
#include "util/unique_fd.h"

namespace telvora {

// Belongs to the run loop that it is made with; every operation is called on that loop's thread.
class Listener {
  public:
    // Both run on the run loop's thread.
    using Accepted = std::function<void(UniqueFd connection, const Peer& peer)>;
    // The charge for a connection of the user while it waits; std::nullopt: it is closed at once. Asked when
    // it is accepted, and when it is passed on.
    using MayWait = std::function<std::optional<QuotaCharge>(uid_t user)>;

    // `socket`: a listening, non-blocking Unix stream socket, taken over. `closers` close the connections,
    // and outlive the listener.
    Listener(asio::io_context& runLoop, UniqueFd socket, DescriptorClosers& closers, Accepted accepted,
             MayWait mayWait);

    // Starts to accept.
    void resume();
    // Stops accepting, closes the socket and the connections that wait. Connections that were not accepted
    // stay with other holders of the socket.
    void close();
    // Whether connections wait that have been accepted and not passed on.
    bool hasWaiting() const { return !users_.empty(); }

  private:
    struct Connection {
        UniqueFd socket;
        QuotaCharge place;
    };
    // Connections of one user, in the order of acceptance.
    struct Line {
        uid_t user;
        std::deque<Connection> connections;
    };

    void acceptNext();
    void acceptWaiting();
    bool accept();
    void passNextOn();

    // Of the waits for a connection and for the pause.
    const std::shared_ptr<HandlerMemory<2>> memory_ = std::make_shared<HandlerMemory<2>>();
    DescriptorClosers& closers_;
    const Accepted accepted_;
    const MayWait mayWait_;
    LoopTask passNextOn_;
    asio::local::stream_protocol::acceptor acceptor_;
    asio::steady_timer pause_;
    bool pauses_ = false;    // until pause_ has expired
    std::list<Line> users_;  // with connections that wait, next one first
};

}  // namespace telvora
