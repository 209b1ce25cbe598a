// SPDX-License-Identifier: Apache-2.0
//
// ClientConnection: one accepted client. It decodes the client's D-Bus calls for the session that it exports,
// sends the replies, and carries the session's one-way calls back to the client.
//
// The bus and the exported session's operations live on the connection's strand. sendMessageToClient() and
// description() may be called from any thread; everything else before resume() from one thread, afterwards
// only on the strand. The connection keeps itself alive from resume() to its invalidation.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/work_pool.h"
#include "protocol/client_session_interface.h"
#include "util/unique_fd.h"

namespace telvora {

class ClientConnection : public ClientSessionReplyInterface {
  public:
    // Takes over a connected stream socket. `description` names the peer in log lines. Nothing is read yet.
    static std::shared_ptr<ClientConnection> make(Strand strand, UniqueFd socket, std::string description);

    // The object that answers the client's calls; the connection owns a reference until its invalidation.
    virtual void setExportedObject(std::shared_ptr<ClientSessionInterface> session) = 0;
    // Called at most once, on the strand, when the connection has ended, whoever ended it; the exported
    // object is given up right before.
    virtual void setInvalidationHandler(std::function<void()> handler) = 0;
    // Starts to serve the client.
    virtual void resume() = 0;
    // Ends the connection from any thread; the invalidation handler follows on the strand.
    virtual void invalidate() = 0;
};

}  // namespace telvora
