// SPDX-License-Identifier: Apache-2.0
//
// TelvoraBackend: the base of every reporting destination of a session.
//
// A session creates its backends through the factory (backend_factory.h), sets their identity, and from then
// on uses only the operations declared here. A backend belongs to its session's strand. From any thread:
// state(), samplingThreshold(), their setters and followState(), for HTTP completions and the other sessions
// of the hierarchy; name() and reports(). A backend whose work outlives a call keeps itself alive through
// shared_from_this().
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "async/network_queue.h"
#include "backends/report_account.h"
#include "config/device_identity.h"
#include "config/environment.h"
#include "http/http_client.h"
#include "platform/user_defaults.h"
#include "plist/property_list.h"
#include "policy/reporting_policy.h"
#include "protocol/telvora_error.h"
#include "util/mutex.h"
#include "util/time_value.h"

namespace telvora {

// The values that a child session's backend takes over from its parent's.
struct ReportingState {
    BackendState state = BackendState::waitingForUserInfo;
    std::optional<double> samplingThreshold;
};

// Told apart by type, so that a running number can't pass for a flag.
enum class EventID : uint16_t {};
// Bit 0: realtime. Bit 1: promote a sampled-out backend.
enum class SendFlag : uint32_t {};

class ClientFiles;
class DecisionTrace;
class PowerLog;

// What backends use of the outside. All references outlive every backend.
struct BackendServices {
    HttpClient& http;
    const DeviceIdentity& identity;
    const Environment& environment;
    UserDefaults& defaults;
    Clock clock;                                                           // time of day
    std::function<std::optional<std::string>()> countryCode;               // of the current locale
    std::function<long()> timeZoneOffsetSeconds;                           // east positive
    std::function<double()> random;                                        // uniform in [0, 1)
    std::function<std::unique_ptr<NetworkQueue>()> makeNetworkQueue = {};  // for the dashboard
    std::string vodexAdaptorPath = {};  // the metrics adaptor's shared object
    PowerLog* powerLog = nullptr;       // null: events are dropped
    DecisionTrace* trace = nullptr;     // told why backends do what they do; null: nobody asks
};

// The configuration of one backend in a bag: the bag's value under the backend's name. Shares the bag, which
// it keeps alive; null: no profile.
using BackendProfile = std::shared_ptr<const PropertyList>;

using FlushCompletion =
    std::function<void(std::optional<std::string> answer, std::optional<TelvoraError> error)>;

class TelvoraBackend : public std::enable_shared_from_this<TelvoraBackend> {
  public:
    virtual ~TelvoraBackend();
    TelvoraBackend(const TelvoraBackend&) = delete;
    TelvoraBackend& operator=(const TelvoraBackend&) = delete;

    // Ends what runs on the backend's behalf. Base: nothing.
    virtual void cleanup();
    // Takes the state anew from the configuration. Base: reporting.
    virtual void updateState();
    // Sends one report (method: its category, respCode: its type). Returns an answer for the client and the
    // message log, or nothing. Base: sends nothing.
    virtual std::optional<std::string> sendMessage(const std::optional<Dictionary>& payload,
                                                   TimeValue timestamp, uint16_t method, uint16_t respCode,
                                                   EventID eventID, SendFlag flag);
    // Counts the report (the number wraps to 0 after 65535; the account takes it on) and sends it under the
    // new number. The one send operation that sessions call. Who overrides the other one, or any of the
    // uploads, says in the account what became of it.
    std::optional<std::string> sendMessage(const std::optional<Dictionary>& payload, TimeValue timestamp,
                                           uint16_t method, uint16_t respCode, SendFlag flag);
    // Sends what is held back. `completion` (may be empty) is called once, from any thread, at once or when
    // the server has answered. Returns the answer for the message log, or nothing. Base: completes with
    // nothing.
    virtual std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion);
    // Uploads one of the client's files, which `clientFiles` opens for those who may have it; blocks until
    // the server has answered. True when a request was sent, whatever became of it. Base: false.
    virtual bool uploadFileAtPath(const std::string& path, const std::string& extensionToken,
                                  ClientFiles& clientFiles);
    // Uploads an array of log records; blocks likewise. Base: false.
    virtual bool uploadLogData(const Array& records);
    // Gives the backend the dotted ID of its session and that session's ancestors.
    virtual void setCorrelatedSessionID(const std::string& combinedSessionID);

    // Without a white list everything is allowed; an empty one allows nothing.
    bool isWhitelistedEvent(uint16_t category) const;
    // Without a black list, or with an empty one, nothing is excluded.
    bool isBlacklistedEvent(uint16_t category) const;
    // The loss that the two lists make of a report, which the log is told under the operation's name.
    // Nothing: they let it through.
    std::optional<ReportPlace> exclusionOf(uint16_t category, const char* operation) const;

    // Read as versionComponents() does.
    void setSelfVersion(std::string_view version);
    void setStartTimestamp(TimeValue time) { startTimeStamp_ = TelvoradUtil::secondsFromTimeValue(time); }

    BackendState state() const { return state_.load(); }
    // What it does with reports, as it was decided last; its threshold is that of the bag, which the parent
    // session may have replaced since.
    const ReportingPolicy& policy() const { return policy_; }
    void setState(BackendState state);
    std::optional<double> samplingThreshold() const TELVORA_EXCLUDES(thresholdLock_);
    void setSamplingThreshold(std::optional<double> threshold) TELVORA_EXCLUDES(thresholdLock_);
    ReportingState reportingState() const { return {state(), samplingThreshold()}; }
    // Takes over the state of the parent's backend; false: this one is sampled out, and stays so.
    bool followState(BackendState parents);
    double samplingFactor() const { return samplingFactor_; }
    const std::string& name() const { return name_; }
    const std::optional<std::string>& displayURL() const { return displayURL_; }
    const std::optional<std::string>& combinedSessionIDString() const { return combinedSessionIDString_; }
    void setCombinedSessionIDString(std::string id) { combinedSessionIDString_ = std::move(id); }
    uint16_t eventID() const { return eventID_; }

    void setSessionID(uint32_t id) { sessionID_ = id; }
    void setCompType(int32_t type) { compType_ = type; }
    void setClientVersion(uint16_t version) { clientVersion_ = version; }
    void setUdid(const DeviceIDBuffer& udid) { udid_ = udid; }
    void setProductVersion(std::optional<std::string> version) { productVersion_ = std::move(version); }
    void setBuildVersion(std::optional<std::string> version) { buildVersion_ = std::move(version); }
    void setHardwareType(std::optional<std::string> type) { hardwareType_ = std::move(type); }
    void setIsInternal(bool internal) { isInternal_ = internal; }
    void setRequireUserInfo(bool required) { requireUserInfo_ = required; }
    void setBatchEvents(bool batched) { policy_.batchEvents = batched; }
    // Whom to tell what becomes of reports and uploads, and whose quotas reports count against. Without,
    // accounts of the backend's own and nobody's quotas.
    void setAccounts(std::shared_ptr<ReportAccount> reports, std::shared_ptr<ReportAccount> uploads,
                     QuotaUser user) {
        reports_ = std::move(reports);
        uploads_ = std::move(uploads);
        user_ = std::move(user);
    }
    ReportAccount& reports() const { return *reports_; }
    // Shared with the session and its other backends; null: the client gave none.
    void setUserInfoDict(std::shared_ptr<const Dictionary> userInfo) { userInfoDict_ = std::move(userInfo); }

  protected:
    // From this state to that one; false: it has another.
    bool changeState(BackendState from, BackendState to);
    // Called after each change of state, on the thread that made it. Base: nothing.
    virtual void stateChanged() {}

    // Draws samplingFactor.
    TelvoraBackend(const BackendServices& services, std::string name, BackendProfile profile,
                   std::optional<std::string> productFamily);

    // The profile when it is a dictionary, else null.
    const Dictionary* profileDictionary() const;

    const BackendServices& services_;
    const std::string name_;
    const BackendProfile profile_;
    const std::optional<std::string> productFamily_;
    const double samplingFactor_;

    std::shared_ptr<ReportAccount> reports_ = std::make_shared<ReportAccount>();
    std::shared_ptr<ReportAccount> uploads_ = std::make_shared<ReportAccount>();
    QuotaUser user_;
    uint32_t sessionID_ = 0;
    int32_t compType_ = 0;
    uint16_t clientVersion_ = 0;
    uint16_t eventID_ = 0;
    uint8_t selfVersionMajor_ = 0;
    uint8_t selfVersionMiddle_ = 0;
    uint8_t selfVersionMinor_ = 0;
    std::string selfVersion_ = "0.0";  // as servers read it: "3.1", or "3.1.2" where the minor number isn't 0
    bool isInternal_ = false;
    bool requireUserInfo_ = false;
    double startTimeStamp_ = 0;  // seconds since 1970
    DeviceIDBuffer udid_{};
    std::optional<std::string> combinedSessionIDString_;
    std::optional<std::string> displayURL_;
    std::optional<std::string> productVersion_;
    std::optional<std::string> buildVersion_;
    std::optional<std::string> hardwareType_;
    std::shared_ptr<const Dictionary> userInfoDict_;
    ReportingPolicy policy_;  // refers to the profile

  private:
    std::atomic<BackendState> state_{BackendState::waitingForUserInfo};
    mutable Mutex thresholdLock_;
    std::optional<double> samplingThreshold_ TELVORA_GUARDED_BY(thresholdLock_);
};

}  // namespace telvora
