// SPDX-License-Identifier: Apache-2.0
//
// HTTPSPostBackend: posts reports as JSON events over HTTPS.
//
// The bag's entry for the session's client and service decides whether it reports at all, where to, which
// keys of an event are removed or hashed, and how many events are held back. A report is dropped, posted at
// once, or held in the batch until a flush:
//
//     state                 a report is                                     a flush
//     waiting, sampled out  held                                            throws the batch away
//     disabled              dropped                                         throws the batch away
//     reporting             posted if realtime or not batching, else held   posts the batch
//
// The answer to a post arrives on the HTTP client's thread: there only the state, the account and the
// constant name are touched, and the flush's completion is called. A post in flight keeps the backend alive.
//
// A batch that would be posted counts against its user's quota of pending bytes. One of a backend that is
// sampled out or disabled has a quota of its own (dormantBytes), so that it takes no room from reports that
// leave.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "backends/telvora_backend.h"
#include "policy/decision_trace.h"

namespace telvora {

// A flag with a bit that has no meaning here asks for neither.
constexpr bool isRealtime(SendFlag flag) {
    return flag == SendFlag{1} || flag == SendFlag{3};
}
constexpr bool isPromoting(SendFlag flag) {
    return flag == SendFlag{2} || flag == SendFlag{3};
}

class HTTPSPostBackend final : public TelvoraBackend {
  public:
    // Nothing without a profile or a product family, and, with a line at level 3, for a profile without an
    // array "clients". Reads the user defaults, the diagnostics consent and the device's two identifiers.
    static std::shared_ptr<HTTPSPostBackend> make(const BackendServices& services, std::string name,
                                                  BackendProfile profile,
                                                  std::optional<std::string> productFamily);
    ~HTTPSPostBackend() override;

    using TelvoraBackend::sendMessage;

    void updateState() override;
    // The number that counts is the backend's own running one; `eventID` is not used. Returns the posted
    // messages, printed for people, where the settings allow to log them.
    std::optional<std::string> sendMessage(const std::optional<Dictionary>& payload, TimeValue timestamp,
                                           uint16_t method, uint16_t respCode, EventID eventID,
                                           SendFlag flag) override;
    // Completes with an error of code -1 when there is nothing to send, else when the server has answered.
    // Events that could not be delivered are not kept.
    std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion) override;
    // Held events take the new identifier too.
    void setCorrelatedSessionID(const std::string& combinedSessionID) override;

    const std::optional<std::string>& postURL() const { return policy_.postURL; }
    void setPostURL(std::optional<std::string> url) { policy_.postURL = std::move(url); }

  protected:
    void stateChanged() override TELVORA_EXCLUDES(batchRoomLock_);

  private:
    using PostCompletion = std::function<void(std::optional<TelvoraError> error)>;

    // What a message takes along: how many reports it holds, and their part of the user's pending bytes.
    struct Load {
        size_t reports = 0;
        QuotaCharge room;
    };

    HTTPSPostBackend(const BackendServices& services, std::string name, BackendProfile profile,
                     std::optional<std::string> productFamily, const Array& clients);

    // https_post_send.cpp: what happens to a report.
    bool isUserInfoMissing() const { return requireUserInfo_ && userInfoDict_ == nullptr; }
    std::optional<Dictionary> stopMessagePayload(const std::optional<Dictionary>& payload) const;
    Dictionary newEvent(const std::optional<Dictionary>& payload, TimeValue timestamp, uint16_t method,
                        uint16_t respCode) const;
    std::optional<std::string> batchEvent(Dictionary record);
    std::vector<Dictionary> takeBatch();
    void loseBatch(ReportPlace cause);
    Quota quotaOfBatch() const;
    bool takeBatchRoom(Quota quota, size_t bytes) TELVORA_EXCLUDES(batchRoomLock_);
    QuotaCharge releaseBatchRoom() TELVORA_EXCLUDES(batchRoomLock_);
    std::optional<std::string> loseOverQuota();
    bool hasRoomForUserInfo(const Dictionary& userInfo);
    bool keepsInFlush(const Dictionary& record);
    std::optional<std::string> postDirectly(Dictionary record, uint16_t method, uint16_t respCode,
                                            SendFlag flag);

    // https_post_transport.cpp: how it leaves the device.
    std::string clientIdentifier() const;
    bool isMessageLogged() const;
    std::string createMessageForPostAndLogging(std::span<Dictionary> events,
                                               std::optional<std::string>& prettyJsonString) const;
    void postJSONMessage(std::string json, Load load, SendFlag flag, std::optional<uint16_t> method,
                         std::optional<uint16_t> responseCode, PostCompletion completion);
    HttpRequest requestForMessage(const std::string& url, std::string json, std::optional<uint16_t> method,
                                  std::optional<uint16_t> responseCode) const;
    void handlePostResult(const HttpResult& result, Load& load, const PostCompletion& completion);

    const Array& clients_;   // in the profile
    const bool dnuEnabled_;  // the user shares diagnostics
    const bool forceEventLogging_;
    const std::string uuidRespectDnu_;
    const std::string uuidOverrideDnu_;
    std::vector<Dictionary> batchedEvents_;
    size_t batchedBytes_ = 0;  // approximately
    Mutex batchRoomLock_;
    QuotaCharge batchRoom_ TELVORA_GUARDED_BY(batchRoomLock_);  // the same, of the user's quotas
    std::unordered_map<int64_t, int32_t> eventMethodCounts_;    // of the batch's events, by "_method"
    bool immutable_ = false;  // a logged message has gone out: the bag is not consulted any more
};

}  // namespace telvora
