// SPDX-License-Identifier: Apache-2.0
//
// HTTPSPostBackend: posts reports as JSON events over HTTPS.
//
// The bag's entry for the session's client and service decides whether the backend reports, to which server,
// which keys of an event are removed or hashed, and how many events are held. A report is dropped, posted at
// once, or held in the batch until a flush:
//
//     state                 a report is                                     a flush
//     waiting, sampled out  held                                            discards the batch
//     disabled              dropped                                         discards the batch
//     reporting             posted if realtime or not batching, else held   posts the batch
//
// The answer to a post arrives on the HTTP client's thread, which touches only the state, the account, the
// charge of the batch and the constant members, and calls the completion of the flush. A post in flight keeps
// the backend alive.
//
// A batch that can be posted is charged to its user's quota `pendingBytes`. The batch of a backend that is
// sampled out or disabled is charged to `dormantBytes` instead, so that reports that will leave have their
// own room.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "backends/message_outbox.h"
#include "backends/telvora_backend.h"
#include "policy/decision_trace.h"

namespace telvora {

// A flag with an unknown bit is neither realtime nor promoting.
constexpr bool isRealtime(SendFlag flag) {
    return flag == SendFlag{1} || flag == SendFlag{3};
}
constexpr bool isPromoting(SendFlag flag) {
    return flag == SendFlag{2} || flag == SendFlag{3};
}

class HTTPSPostBackend final : public TelvoraBackend {
  public:
    // Null without a profile or a product family. Null with a line at level 3 if the profile has no array
    // "clients". Reads the user defaults, the diagnostics consent and the device's two identifiers.
    static std::shared_ptr<HTTPSPostBackend> make(const BackendServices& services, std::string name,
                                                  BackendProfile profile, SharedIdentity identity);
    ~HTTPSPostBackend() override;

    using TelvoraBackend::sendMessage;

    void updateState() override;
    // Sends the report under the backend's current number; `eventID` is not used. Returns the posted messages
    // as readable JSON if the settings allow to log them.
    std::optional<std::string> sendMessage(const std::optional<Dictionary>& payload, TimeValue timestamp,
                                           uint16_t method, uint16_t respCode, EventID eventID,
                                           SendFlag flag) override;
    // Completes at once with an error of code -1 if no event is posted, else when the server has answered, or
    // when the outbox has stored the message to spare the link. Events that could not be delivered are lost.
    std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion) override;
    // Sets the ID in held events, too.
    void setCorrelatedSessionID(const std::string& combinedSessionID) override;

  protected:
    void stateChanged() override TELVORA_EXCLUDES(batchChargeLock_);

  private:
    using PostCompletion = std::function<void(std::optional<TelvoraError> error)>;

    // The reports of a message, their charge of the user's pending bytes, and the copy for the outbox, if
    // there is one.
    struct Load {
        InFlightReports reports;
        QuotaCharge charge;
        size_t answerBytes = 0;  // kept for the client until the server has answered
        std::unique_ptr<OutboxMessage> copy = nullptr;
    };

    HTTPSPostBackend(const BackendServices& services, std::string name, BackendProfile profile,
                     SharedIdentity identity, const Array& clients);

    // https_post_send.cpp: drops, holds or posts reports.
    bool isUserInfoMissing() const { return identity_->requireUserInfo && userInfoDict_ == nullptr; }
    std::optional<Dictionary> stopMessagePayload(const std::optional<Dictionary>& payload) const;
    Dictionary newEvent(const std::optional<Dictionary>& payload, TimeValue timestamp, uint16_t method,
                        uint16_t respCode) const;
    void applyFilters(Dictionary& record) const;
    std::optional<std::string> batchEvent(Dictionary record);
    int32_t& batchedOfMethod(int64_t method);
    std::vector<Dictionary> takeBatch();
    void loseBatch(ReportOutcome cause);
    Quota quotaOfBatch() const;
    bool chargeBatch(Quota quota, size_t bytes) TELVORA_EXCLUDES(batchChargeLock_);
    QuotaCharge takeBatchCharge() TELVORA_EXCLUDES(batchChargeLock_);
    std::optional<std::string> loseOverQuota();
    bool chargeUserInfo(const Dictionary& userInfo);
    std::optional<ReportOutcome> exclusionOfHeld(const Dictionary& event) const;
    std::optional<std::string> postBatch(const Dictionary& userInfo, FlushCompletion completion);
    std::optional<std::string> postDirectly(Dictionary record, uint16_t method, uint16_t respCode,
                                            SendFlag flag);

    // https_post_transport.cpp: makes and posts messages.
    std::string clientIdentifier() const;
    bool isMessageLogged() const;
    std::string createMessageForPostAndLogging(std::span<Dictionary> events,
                                               std::optional<std::string>& prettyJsonString) const;
    void postJSONMessage(std::string json, Load load, SendFlag flag, std::optional<uint16_t> method,
                         std::optional<uint16_t> responseCode, PostCompletion completion);
    HttpRequest requestForMessage(const std::string& url, std::string json, std::optional<uint16_t> method,
                                  std::optional<uint16_t> responseCode) const;
    void post(HttpRequest request, std::shared_ptr<Load> load, PostCompletion completion);
    void keepUnposted(HttpRequest request, std::shared_ptr<Load> load, PostCompletion completion);
    void settle(const HttpResult& result, Load& load);
    void handlePostResult(const std::string& url, const HttpResult& result, Load& load,
                          const PostCompletion& completion);

    const Array& clients_;   // of the profile
    const bool dnuEnabled_;  // the user shares diagnostics
    const bool forceEventLogging_;
    const std::shared_ptr<const std::string> uuidRespectDnu_;
    const std::shared_ptr<const std::string> uuidOverrideDnu_;
    const std::shared_ptr<const std::string> defaultPostURL_;          // of the user defaults; null: not set
    const std::shared_ptr<const std::string> defaultRealtimePostURL_;  // likewise
    std::vector<Dictionary> batchedEvents_;
    size_t batchedBytes_ = 0;  // that the batch occupies, approximately
    Mutex batchChargeLock_;
    QuotaCharge batchCharge_ TELVORA_GUARDED_BY(batchChargeLock_);  // of the user's quotas, for batchedBytes_
    std::vector<std::pair<int64_t, int32_t>> eventMethodCounts_;    // of the batch's events, by "_method"
    bool immutable_ = false;  // a logged message was posted: the bag no longer changes the policy
};

}  // namespace telvora
