// SPDX-License-Identifier: Apache-2.0
//
// Listener: takes new connections from the listening socket and offers each to the agent.
#pragma once

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include "daemon/telvorad_agent.h"
#include "platform/work_pool.h"
#include "util/unique_fd.h"

namespace telvora {

// Belongs to the run loop that it is made with; every operation is called on that loop's thread.
class Listener {
  public:
    // `socket`: a listening, non-blocking Unix stream socket, taken over. `agent` and `pool` outlive the
    // listener.
    Listener(asio::io_context& runLoop, WorkPool& pool, TelvoradAgent& agent, UniqueFd socket);

    // Starts to accept.
    void resume();
    // Accepts no more and closes the socket.
    void close();

  private:
    void acceptNext();
    void accepted(UniqueFd connection);

    WorkPool& pool_;
    TelvoradAgent& agent_;
    asio::local::stream_protocol::acceptor acceptor_;
    asio::steady_timer pause_;
    uint64_t connectionCount_ = 0;
};

}  // namespace telvora
