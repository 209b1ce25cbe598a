// SPDX-License-Identifier: Apache-2.0
//
// The second interface of the administrators' socket: everything that leaves the device.
// com.zandor.telvorad.Status.xml describes the entries.
#pragma once

#include <functional>

#include "plist/property_list.h"
#include "protocol/client_session_interface.h"
#include "protocol/method.h"

namespace telvora {

// An object of this interface belongs to one connection, and is called on its strand.
class OutgoingInterface {
  public:
    static constexpr char kWireName[] = "com.zandor.telvorad.Outgoing";
    static constexpr const char* kWirePath = kTelvoradPath;
    virtual ~OutgoingInterface() = default;

    // The first call begins to watch and is answered at once, without entries. Each later call is answered
    // with the entries since the call before, as soon as there are any. One call at a time: a second one has
    // the first one answered without entries.
    virtual void next(std::function<void(Dictionary batch)> reply) = 0;
};

inline constexpr auto kNextOutgoing = method("Next", &OutgoingInterface::next, {}, {"batch"});
inline constexpr std::tuple kOutgoingMethods{kNextOutgoing};

namespace outgoing {

// The keys of a batch.
inline constexpr char kEntries[] = "entries";
inline constexpr char kLost[] = "lost";

// The keys of an entry.
inline constexpr char kTime[] = "time";
inline constexpr char kKind[] = "kind";
inline constexpr char kExchange[] = "exchange";
inline constexpr char kUser[] = "user";
inline constexpr char kMethod[] = "method";
inline constexpr char kUrl[] = "url";
inline constexpr char kHeaders[] = "headers";
inline constexpr char kAddress[] = "address";
inline constexpr char kPort[] = "port";
inline constexpr char kSize[] = "size";
inline constexpr char kBody[] = "body";
inline constexpr char kStatus[] = "status";
inline constexpr char kError[] = "error";
inline constexpr char kBackend[] = "backend";
inline constexpr char kClientName[] = "clientName";
inline constexpr char kEventNumber[] = "eventNumber";
inline constexpr char kCategory[] = "category";
inline constexpr char kType[] = "type";
inline constexpr char kKeys[] = "keys";

// The kinds of entries.
inline constexpr char kMessage[] = "message";
inline constexpr char kBag[] = "bag";
inline constexpr char kUpload[] = "upload";
inline constexpr char kDatagram[] = "datagram";
inline constexpr char kAnswer[] = "answer";
inline constexpr char kFiltered[] = "filtered";

}  // namespace outgoing

}  // namespace telvora
