// SPDX-License-Identifier: Apache-2.0
//
// The wire form of client_session_interface.h: object paths, interface names, and the methods with their
// argument names and types. com.zandor.telvorad.xml beside this file is the same as published to authors of
// clients; a test holds the two together.
#pragma once

#include "bus/bus_interface.h"

namespace telvora {

inline constexpr char kTelvoradPath[] = "/com/zandor/telvorad";
inline constexpr char kTelvoradClientPath[] = "/com/zandor/telvorad/client";

// The socket's file name in the runtime directory.
inline constexpr char kTelvoradSocketName[] = "com.zandor.telvorad";

// The methods of ClientSessionInterface, in the order of the interface.
enum class SessionMethod : size_t {
    kSetSessionInfo,
    kStartConfig,
    kFetchStates,
    kFetchDisplayURL,
    kSendMessageWithCategory,
    kSendMessageWithDictionary,
    kFlushMessages,
    kFinishSession,
    kUploadFileAtPath,
    kUploadLogData,
    kSendMessageWithSessionInfo,
};

// Exported by the daemon at kTelvoradPath.
const BusInterface& clientSessionBusInterface();
const BusInterface& sandboxExtensionBusInterface();
// Exported by the client at kTelvoradClientPath; called without expecting an answer.
const BusInterface& clientSessionReplyBusInterface();

}  // namespace telvora
