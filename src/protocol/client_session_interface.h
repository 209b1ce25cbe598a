// SPDX-License-Identifier: Apache-2.0
//
// The two interfaces between a client and the daemon, as C++ sees them. The wire form is in
// client_session_wire.h.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "plist/property_list.h"
#include "protocol/telvora_error.h"

namespace telvora {

// Reply callbacks. Each is called at most once, from any thread; one that is destroyed uncalled means that
// the client gets no answer. None may block.
using ReportingStatesReply = std::function<void(std::optional<std::vector<std::string>> reportingStates)>;
using StringReply = std::function<void(std::optional<std::string> answer)>;
using FlushReply = std::function<void(std::optional<std::string> answer, std::optional<TelvoraError> error)>;
using UploadFileReply = std::function<void(bool uploaded)>;
using UploadLogDataReply = std::function<void(bool uploaded, std::optional<TelvoraError> error)>;

// The eleven operations that the daemon offers each client. The operations of one connection are called one
// after another, on the connection's strand; some of them block that strand (a bag fetch, an upload).
class ClientSessionInterface {
  public:
    virtual ~ClientSessionInterface() = default;

    virtual void setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                std::vector<std::string> frameworksToCheck, bool hasAggregationBlock) = 0;
    virtual void startConfigWithCompletionHandler(ReportingStatesReply completionHandler) = 0;
    virtual void fetchStatesWithUserInfo(std::optional<Dictionary> userInfo,
                                         ReportingStatesReply completionHandler) = 0;
    virtual void fetchDisplayURL(std::function<void(std::string displayURL)> reply) = 0;
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
                                            std::optional<Dictionary> payload, StringReply reply) = 0;
};

// What became of a message to the client.
enum class Delivery {
    handedOver,     // to the client's socket, or to the little that waits right behind it
    tooMuchUnread,  // dropped: the client has left too much unread
    overQuota,      // dropped: the client's user has left too much unread with all its clients
    unreachable,    // dropped: the connection has ended
};
using DeliveryReply = std::function<void(Delivery delivery)>;

// The one operation that a client offers the daemon. One-way: it does not wait for the client.
class ClientSessionReplyInterface {
  public:
    virtual ~ClientSessionReplyInterface() = default;

    // Hands one message to the client's aggregation block; sessionInfo null, 0, 0, 0, payload nothing is the
    // end marker. `timestamp`: seconds since 1970. Callable from any thread. A message that is dropped has a
    // line at level 3. `done`, if there is one, is called at most once, from any thread, and must not block.
    virtual void sendMessageToClient(std::shared_ptr<const Dictionary> sessionInfo, double timestamp,
                                     uint16_t category, uint16_t type, std::optional<Dictionary> payload,
                                     DeliveryReply done) = 0;

    // What names this connection in log lines.
    virtual std::string description() const = 0;
};

}  // namespace telvora
