// SPDX-License-Identifier: Apache-2.0
//
// StatusService: what an administrator may ask, on connections of its own: com.zandor.telvorad.Status
// (protocol/com.zandor.telvorad.Status.xml). Such a connection makes no session, keeps no process alive and
// has no part in the registry.
//
// Who may read is decided by who the kernel says the peer is: root, the daemon's own user, the members of the
// group "telvora-admin". All others are let in to be told so, a few of them at a time.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "access/peer.h"
#include "access/user_quotas.h"
#include "async/work_pool.h"
#include "plist/property_list.h"
#include "util/unique_fd.h"

namespace telvora {

class StatusService {
  public:
    // Connections of peers that may not read; more of them are closed at once.
    static constexpr int kMaxRefusedPeers = 8;

    // What the methods answer with; called on any thread, also two at once. What they refer to outlives the
    // work pool's last turn.
    struct Answers {
        std::function<Dictionary()> status;
        std::function<Dictionary()> device;
    };

    // `quotas`, under which connections count, outlives the work pool.
    StatusService(Answers answers, UserQuotas& quotas) : answers_(std::move(answers)), quotas_(quotas) {}

    // Serves a connected stream socket until its end, on the strand; or closes it. Callable from any thread.
    // The service outlives the work pool's last turn.
    void accept(Strand strand, UniqueFd socket, const Peer& peer);

  private:
    const Answers answers_;
    UserQuotas& quotas_;
    // How many refused peers are connected: who holds a copy holds one of them.
    const std::shared_ptr<void> refused_ = std::make_shared<int>();
};

// Whether the peer may read the daemon's status. May ask the name service.
bool mayReadStatus(const Peer& peer);

}  // namespace telvora
