// SPDX-License-Identifier: Apache-2.0
//
// StatusService: serves com.zandor.telvorad.Status and com.zandor.telvorad.Outgoing
// (protocol/com.zandor.telvorad.Status.xml) to administrators, on connections of its own. Such a connection
// makes no session and is not in the registry.
//
// The kernel's credentials of the peer decide: root, the daemon's own user and the members of the group
// "telvora-admin" may read. All others are answered with an error, a few of them at a time.
#pragma once

#include <memory>

#include "access/peer.h"
#include "access/user_quotas.h"
#include "async/work_pool.h"
#include "outgoing/outgoing_feed.h"
#include "protocol/status_interface.h"
#include "util/unique_fd.h"

namespace telvora {

class StatusService {
  public:
    // Connections of peers that may not read; more of them are closed at once.
    static constexpr int kMaxRefusedPeers = 8;

    // `status` answers the calls. All three, and the service, outlive the work pool's last turn; connections
    // count in `quotas`.
    StatusService(StatusInterface& status, UserQuotas& quotas, OutgoingFeed& outgoing)
        : status_(status), quotas_(quotas), outgoing_(outgoing) {}

    // Serves a connected stream socket until its end, on the strand, or closes it. Callable from any thread.
    void accept(Strand strand, UniqueFd socket, const Peer& peer);

  private:
    StatusInterface& status_;
    UserQuotas& quotas_;
    OutgoingFeed& outgoing_;
    // Its use count, less this one, is the number of refused peers that are connected.
    const std::shared_ptr<void> refused_ = std::make_shared<int>();
};

}  // namespace telvora
