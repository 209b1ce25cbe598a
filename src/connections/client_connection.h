// SPDX-License-Identifier: Apache-2.0
//
// ClientConnection: one accepted client. It passes the client's calls to the session that it exports, sends
// the replies, and sends the session's one-way calls to the client.
//
// The bus and the exported session's operations run on the connection's strand. sendMessageToClient(),
// invalidate() and description() may be called from any thread; all other functions before resume(), from one
// thread. The connection keeps itself alive from resume() to its invalidation, and must be destroyed before
// its pool.
//
// BusLimits bounds the cost of one client; kMaxOutboxMessages and kMaxOutboxBytes bound the messages on their
// way to it.
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
    // Messages to the client that wait for the strand, which a session's operation may block, or for the
    // client to read the output that BusLimits lets wait before them. They count in their user's
    // Quota::unreadBytes.
    static constexpr size_t kMaxOutboxMessages = 8192;
    static constexpr size_t kMaxOutboxBytes = size_t{4} << 20;

    // Takes over a connected stream socket. `description` names the peer in log lines. Reading starts with
    // resume().
    static std::shared_ptr<ClientConnection> make(Strand strand, UniqueFd socket, std::string description,
                                                  BusLimits limits = {});

    // The object that answers the client's calls; the connection owns a reference until its invalidation.
    virtual void setExportedObject(std::shared_ptr<ClientSessionInterface> session) = 0;
    // Answers the client's IssueFileExtension; without one, the call is answered with "not supported".
    virtual void setClientFiles(std::shared_ptr<ClientFiles> files) = 0;
    // The user on whose behalf the client's calls run; optional.
    virtual void setUser(QuotaUser user) = 0;
    // Asked before each of the client's calls whether it may be carried out now. False: the calls wait, until
    // `resume` is called, from any thread; then the function is asked again, with `resumed`.
    using Admission = std::function<bool(bool resumed, const std::function<void()>& resume)>;
    virtual void setAdmission(Admission mayHandle) = 0;
    // Called at most once, on the strand, when either side has ended the connection; the reference to the
    // exported object is released right before.
    virtual void setInvalidationHandler(std::function<void()> handler) = 0;
    // Called after that, on the strand, when the client has read its last messages, has left, or has had its
    // time (BusLimits::drainTimeout). The process should not end before.
    virtual void setGoneHandler(std::function<void()> handler) = 0;
    // Starts to serve the client. An unusable socket is invalidated on the strand.
    virtual void resume() = 0;
    // Ends the connection from any thread; the invalidation handler follows on the strand.
    virtual void invalidate() = 0;
};

}  // namespace telvora
