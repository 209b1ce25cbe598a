// SPDX-License-Identifier: Apache-2.0
//
// The client types: the number that a client gives in its session info, and all that depends on it.
// Immutable.
#pragma once

#include <cstdint>
#include <string_view>

namespace telvora {

// Named after their sender codes.
enum class ClientType : uint8_t {
    sm,
    cn,
    nat,
    to,
    rs,
    ob,
    vt,
    vc,
    tv,
    fl,
    sg,
    lt,
    kestova,
    nvcam,
    vtHls,
    vtCrabs,
    tamsel,
    corvane,
    lindqvar
};
inline constexpr int kLastClientType = static_cast<int>(ClientType::lindqvar);

// When the events of a session carry its number instead of its combined ID.
enum class SessionNumbering : uint8_t { never, onInternalBuilds, always };

struct ClientTypeFacts {
    ClientType type;
    std::string_view senderCode;  // names the type to servers
    std::string_view bagName;     // empty: none
    SessionNumbering numbering = SessionNumbering::never;
    bool hasMetricsAdaptor = false;  // sessions may report to the metrics adaptor
};

// The facts about the type of that number; null for a number that is no client type.
const ClientTypeFacts* factsOfClientType(int64_t number);

// The code of the type; empty for a number that is no client type.
std::string_view senderCodeForClientType(int64_t number);

// Whether the events of a session of this type carry its number.
bool isSessionNumbered(int64_t number, bool isInternalBuild);

}  // namespace telvora
