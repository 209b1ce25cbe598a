// SPDX-License-Identifier: Apache-2.0
//
// The interfaces between a client and the daemon as C++ classes; client_session_methods.h has their names on
// the wire.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tl/expected.hpp>
#include <vector>

#include "bus/bus_message.h"
#include "plist/property_list.h"
#include "protocol/telvora_error.h"
#include "util/unique_fd.h"

namespace telvora {

inline constexpr char kTelvoradPath[] = "/com/zandor/telvorad";

// The name of the clients' socket in the runtime directory.
inline constexpr char kTelvoradSocketName[] = "com.zandor.telvorad";

// Reply callbacks. Each is called at most once, from any thread; the client gets no answer if one is
// destroyed uncalled. A callback must not block.
using ReportingStatesReply = std::function<void(std::optional<std::vector<std::string>> reportingStates)>;
using TextReply = std::function<void(std::string answer)>;
using StringReply = std::function<void(std::optional<std::string> answer)>;
using FlushReply = std::function<void(std::optional<std::string> answer, std::optional<TelvoraError> error)>;
using UploadFileReply = std::function<void(bool uploaded)>;
using UploadLogDataReply = std::function<void(bool uploaded, std::optional<TelvoraError> error)>;

// The eleven operations that the daemon offers each client. The operations of one connection are called one
// after another, on the connection's strand. The operations that wait for a server (a bag fetch, an upload)
// are exclusive: the next operation is called when they have been answered.
class ClientSessionInterface {
  public:
    static constexpr char kWireName[] = "com.zandor.telvorad.ClientSessionInterface";
    static constexpr const char* kWirePath = kTelvoradPath;
    virtual ~ClientSessionInterface() = default;

    virtual void setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                std::vector<std::string> frameworksToCheck, bool hasAggregationBlock) = 0;
    virtual void startConfigWithCompletionHandler(ReportingStatesReply completionHandler) = 0;
    virtual void fetchStatesWithUserInfo(std::optional<Dictionary> userInfo,
                                         ReportingStatesReply completionHandler) = 0;
    virtual void fetchDisplayURL(TextReply reply) = 0;
    virtual void sendMessageWithCategory(uint16_t category, uint16_t type, std::optional<Dictionary> payload,
                                         StringReply reply) = 0;
    virtual void sendMessageWithDictionary(Dictionary message, StringReply reply) = 0;
    virtual void flushMessagesWithCompletion(FlushReply completion) = 0;
    virtual void finishSessionWithReply(StringReply reply) = 0;
    virtual void uploadFileAtPath(std::string fileURL, std::string extensionToken,
                                  UploadFileReply completionHandler) = 0;
    virtual void uploadLogData(Array records, UploadLogDataReply completionHandler) = 0;
    virtual void sendMessageWithSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                            uint16_t category, uint16_t type,
                                            std::optional<Dictionary> payload, TextReply reply) = 0;
};

// Turns a file that the client has open at `path` into an extension token for uploadFileAtPath.
class SandboxExtensionInterface {
  public:
    static constexpr char kWireName[] = "com.zandor.telvorad.SandboxExtension";
    static constexpr const char* kWirePath = kTelvoradPath;
    virtual ~SandboxExtensionInterface() = default;

    virtual tl::expected<std::string, BusError> issueFileExtension(std::string path, UniqueFd file) = 0;
};

// The operation that a client offers the daemon. One-way: the daemon does not wait for the client.
class ClientMessageInterface {
  public:
    static constexpr char kWireName[] = "com.zandor.telvorad.ClientSessionReplyInterface";
    static constexpr char kWirePath[] = "/com/zandor/telvorad/client";
    virtual ~ClientMessageInterface() = default;

    // `timestamp`: seconds since 1970. std::nullopt, 0, 0, 0, std::nullopt is the end marker.
    virtual void messageToClient(std::optional<Dictionary> sessionInfo, double timestamp, uint16_t category,
                                 uint16_t type, std::optional<Dictionary> payload) = 0;
};

// The outcome of a message to the client.
enum class Delivery {
    handedOver,     // to the client's socket, or to the short queue behind it
    tooMuchUnread,  // dropped: the client has left too much unread
    overQuota,      // dropped: the client's user has left too much unread with all its clients
    unreachable,    // dropped: the connection has ended
};
using DeliveryReply = std::function<void(Delivery delivery)>;

// The daemon's end of ClientMessageInterface, for the sessions.
class ClientSessionReplyInterface {
  public:
    virtual ~ClientSessionReplyInterface() = default;

    // Sends one message to the client's aggregation block; sessionInfo null, 0, 0, 0, payload std::nullopt is
    // the end marker. `timestamp`: seconds since 1970. Callable from any thread. A dropped message is logged
    // at level 3. `done`, if set, is called at most once, from any thread, and must not block.
    virtual void sendMessageToClient(std::shared_ptr<const Dictionary> sessionInfo, double timestamp,
                                     uint16_t category, uint16_t type, std::optional<Dictionary> payload,
                                     DeliveryReply done) = 0;

    // Runs `work` on the connection's strand: before it returns if the caller is on the strand. Callable from
    // any thread. Dropped if the pool has ended.
    virtual void perform(std::function<void()> work) = 0;

    // The connection's name in log lines.
    virtual std::string description() const = 0;
};

}  // namespace telvora
