// SPDX-License-Identifier: Apache-2.0
#include "daemon/status_service.h"

#include <unistd.h>

#include "access/name_service.h"
#include "bus/bus_connection.h"
#include "protocol/method_export.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr char kReadersGroup[] = "telvora-admin";
constexpr BusLimits kLimits{.messageSize = size_t{64} << 10, .pendingCalls = 16, .descriptors = false};

// May query the name service, and block on it.
bool mayReadStatus(const Peer& peer) {
    if (peer.uid == 0 || peer.uid == geteuid()) return true;
    const std::optional<gid_t> readers = groupId(kReadersGroup);
    return readers && peer.isInGroup(*readers);
}

}  // namespace

void StatusService::accept(Strand strand, UniqueFd socket, const Peer& peer) {
    const QuotaUser user = quotas_.of(peer.uid);
    const LogScope onBehalfOfUser(user.logAdmission());
    const bool admitted = mayReadStatus(peer);
    if (!admitted) {
        TELVORA_LOG(kLogDebug, "StatusService(accept): %s may not read the status",
                    peer.description().c_str());
        if (refused_.use_count() > kMaxRefusedPeers) return;
    }
    const auto connected = std::make_shared<QuotaCharge>();
    if (!user.take(Quota::connections, 1, *connected)) return;
    const auto bus = BusConnection::make(strand, std::move(socket), BusRole::kServer, kLimits);
    const auto onlyIfAdmitted = [admitted](const auto& run, auto& target) -> std::optional<BusError> {
        if (admitted) return run(target);
        return BusError{
            kBusErrorAccessDenied,
            std::string("The daemon's status is for root, its own user and the group ") + kReadersGroup};
    };
    const auto watcher = std::make_shared<OutgoingWatcher>(outgoing_, std::move(strand));
    exportMethods<kStatusMethods>(
        *bus, [this, onlyIfAdmitted](const auto& run) { return onlyIfAdmitted(run, status_); });
    exportMethods<kOutgoingMethods>(
        *bus, [watcher, onlyIfAdmitted](const auto& run) { return onlyIfAdmitted(run, *watcher); });
    // The handler holds the counts, and the connection keeps it until its end.
    bus->start([connected, watcher, counted = admitted ? nullptr : refused_](const std::string&) {
        watcher->end();
    });
}

}  // namespace telvora
