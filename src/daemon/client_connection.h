// SPDX-License-Identifier: Apache-2.0
//
// ClientConnection: one accepted client. It decodes the client's D-Bus calls for the session that it exports,
// sends the replies, and carries the session's one-way calls back to the client.
//
// The bus and the exported session's operations live on the connection's strand. sendMessageToClient(),
// invalidate() and description() may be called from any thread; everything else before resume(), from one
// thread. The connection keeps itself alive from resume() to its invalidation, and must be given up
// before its pool is.
//
// What one client can cost is bounded by BusLimits, and the messages on their way to it by kMaxOutboxMessages
// and kMaxOutboxBytes.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "access/client_files.h"
#include "access/user_quotas.h"
#include "async/work_pool.h"
#include "bus/bus_connection.h"
#include "protocol/client_session_interface.h"
#include "util/unique_fd.h"

namespace telvora {

class ClientConnection : public ClientSessionReplyInterface {
  public:
    // Messages to the client that wait for the strand, which a session's operation may be blocking, or for
    // the client to read what BusLimits lets wait before them. They count in their user's Quota::unreadBytes.
    static constexpr size_t kMaxOutboxMessages = 8192;
    static constexpr size_t kMaxOutboxBytes = size_t{4} << 20;

    // Takes over a connected stream socket. `description` names the peer in log lines. Nothing is read yet.
    static std::shared_ptr<ClientConnection> make(Strand strand, UniqueFd socket, std::string description,
                                                  BusLimits limits = {});

    // The object that answers the client's calls; the connection owns a reference until its invalidation.
    virtual void setExportedObject(std::shared_ptr<ClientSessionInterface> session) = 0;
    // Answers the client's IssueFileExtension; without one, the call is answered with "not supported".
    virtual void setClientFiles(std::shared_ptr<ClientFiles> files) = 0;
    // On whose behalf the client's calls are carried out; without one, on nobody's.
    virtual void setUser(QuotaUser user) = 0;
    // Called at most once, on the strand, when the connection has ended, whoever ended it; the exported
    // object is given up right before.
    virtual void setInvalidationHandler(std::function<void()> handler) = 0;
    // Called after that, on the strand, when the client has read what it was sent, has left, or has had its
    // time (BusLimits::parting): before, the process should not end.
    virtual void setGoneHandler(std::function<void()> handler) = 0;
    // Starts to serve the client. A socket that can't be served is invalidated on the strand.
    virtual void resume() = 0;
    // Ends the connection from any thread; the invalidation handler follows on the strand.
    virtual void invalidate() = 0;
};

}  // namespace telvora
