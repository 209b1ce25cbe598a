// SPDX-License-Identifier: Apache-2.0
//
// Listener: accepts connections from a listening socket and passes each on with its peer's credentials.
#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>
#include <functional>

#include "access/peer.h"
#include "async/descriptor_closers.h"
#include "util/unique_fd.h"

namespace telvora {

// Belongs to the run loop that it is made with; every operation is called on that loop's thread.
class Listener {
  public:
    // Runs on the run loop's thread.
    using Accepted = std::function<void(UniqueFd connection, const Peer& peer)>;

    // Whether a connection of the user is closed without being passed on. Runs on the run loop's thread.
    using Refused = std::function<bool(uid_t user)>;

    // `socket`: a listening, non-blocking Unix stream socket, taken over. `closers` close the connections,
    // and outlive the listener.
    Listener(asio::io_context& runLoop, UniqueFd socket, DescriptorClosers& closers, Accepted accepted,
             Refused refused = {});

    // Starts to accept.
    void resume();
    // Stops accepting and closes the socket. Connections that were not passed on stay with other holders of
    // the socket.
    void close();

  private:
    void acceptNext();
    bool accept();

    DescriptorClosers& closers_;
    const Accepted accepted_;
    const Refused refused_;
    asio::local::stream_protocol::acceptor acceptor_;
    asio::steady_timer pause_;
};

}  // namespace telvora
