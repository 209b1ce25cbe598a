// SPDX-License-Identifier: Apache-2.0
#include "daemon/status_service.h"

#include <unistd.h>

#include "access/name_service.h"
#include "bus/bus_connection.h"
#include "protocol/client_session_wire.h"
#include "protocol/property_list_codec.h"
#include "protocol/status_wire.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr char kReadersGroup[] = "telvora-admin";
constexpr BusLimits kLimits{.messageSize = size_t{64} << 10, .pendingCalls = 16};

// Answers with the dictionary, or refuses where there is none to give.
BusConnection::MethodHandler handlerFor(BusConnection& bus, std::function<Dictionary()> answer) {
    return [&bus, answer = std::move(answer)](BusMessage& call) -> std::optional<BusError> {
        if (!answer) {
            return BusError{
                kBusErrorAccessDenied,
                std::string("The daemon's status is for root, its own user and the group ") + kReadersGroup};
        }
        bus.replyNow(call, [&](BusMessage& reply) {
            ArgumentWriter out(reply);
            out.dictionary(answer());
            return out.result();
        });
        return std::nullopt;
    };
}

}  // namespace

bool mayReadStatus(const Peer& peer) {
    if (peer.uid == 0 || peer.uid == geteuid()) return true;
    const std::optional<gid_t> readers = groupId(kReadersGroup);
    return readers && peer.isInGroup(*readers);
}

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
    const auto bus = BusConnection::make(std::move(strand), std::move(socket), BusRole::kServer, kLimits);
    auto served = bus.and_then([&](const std::shared_ptr<BusConnection>& connection) {
        return connection->exportInterface(kTelvoradPath, statusBusInterface(),
                                           {handlerFor(*connection, admitted ? answers_.status : nullptr),
                                            handlerFor(*connection, admitted ? answers_.device : nullptr)});
    });
    if (!served) {
        TELVORA_LOG(kLogError, "StatusService(accept): can't serve %s: %s", peer.description().c_str(),
                    served.error().c_str());
        return;
    }
    // The counts go with the handler, which the connection keeps until its end.
    (*bus)->start([connected, counted = admitted ? nullptr : refused_](const std::string&) {});
}

}  // namespace telvora
