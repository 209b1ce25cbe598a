// SPDX-License-Identifier: Apache-2.0
//
// TelvoraBackend: the base of every reporting destination of a session.
//
// A session makes its backends through the factory (session/backend_factory.h) and then uses only the
// operations declared here. A backend belongs to its session's strand. Callable from any thread: state(),
// samplingThreshold(), their setters and followState(), which HTTP completions and other sessions of the
// hierarchy use; name() and reports(). A backend whose work outlives a call keeps itself alive through
// shared_from_this().
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "async/network_queue.h"
#include "backends/backend_identity.h"
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
    Decision reason = Decision::userInfoMissing;  // of the state
    std::optional<double> samplingThreshold;
};

// Distinct types, so that a report's number can't pass for a flag.
enum class EventID : uint16_t {};
// Bit 0: realtime. Bit 1: promote a sampled-out backend.
enum class SendFlag : uint32_t {};

class ClientFiles;
class MessageOutbox;
class OutgoingFeed;
class PowerLog;

// Interfaces of backends and sessions to the rest of the system. All references and pointers outlive every
// backend and session. The functions are callable from any thread.
struct BackendServices {
    HttpClient& http;
    const DeviceIdentity& identity;
    const Environment& environment;
    UserDefaults& defaults;
    Clock clock;                                                           // time of day
    std::function<std::optional<std::string>()> countryCode;               // of the device
    std::function<long()> timeZoneOffsetSeconds;                           // east positive
    std::function<double()> random;                                        // uniform in [0, 1)
    std::function<std::unique_ptr<NetworkQueue>()> makeNetworkQueue = {};  // for the dashboard
    std::string vodexAdaptorPath = {};  // path of the metrics adaptor's shared object
    PowerLog* powerLog = nullptr;       // null: events are dropped
    DecisionTrace* trace = nullptr;     // receives the reasons of decisions; null: they are not traced
    MessageOutbox* outbox = nullptr;    // takes messages that found no server; null: they are lost
    OutgoingFeed* outgoing = nullptr;   // receives the names of filtered keys; null: nobody can watch
};

// The configuration of one backend in a bag: the bag's value under the backend's name. Shares ownership of
// the bag. Null: no profile.
using BackendProfile = std::shared_ptr<const PropertyList>;

using FlushCompletion =
    std::function<void(std::optional<std::string> answer, std::optional<TelvoraError> error)>;

// Runs work on the strand of the backend's session: at once if called there.
using Perform = std::function<void(std::function<void()> work)>;
using UploadCompletion = std::function<void(bool uploaded)>;

// A file of the client's, for uploadFileAtPath().
struct FileUpload {
    std::string path;
    std::string extensionToken;  // consumed by the first backend that opens the file
    std::shared_ptr<ClientFiles> files;
    Perform perform;
};

class TelvoraBackend : public std::enable_shared_from_this<TelvoraBackend> {
  public:
    virtual ~TelvoraBackend();
    TelvoraBackend(const TelvoraBackend&) = delete;
    TelvoraBackend& operator=(const TelvoraBackend&) = delete;

    // Ends the work that runs on the backend's behalf. The base has no such work.
    virtual void cleanup();
    // Derives the state from the configuration. Base: reporting.
    virtual void updateState();
    // Sends one report (method: its category, respCode: its type). Returns the answer for the client and the
    // message log, if there is one. Base: drops the report. Overriders settle its outcome with current_.
    virtual std::optional<std::string> sendMessage(const std::optional<Dictionary>& payload,
                                                   TimeValue timestamp, uint16_t method, uint16_t respCode,
                                                   EventID eventID, SendFlag flag);
    // Gives the report the next number (0 follows 65535), enters it in reports(), and sends it under that
    // number. Sessions call no other send operation. Throws std::bad_alloc without memory; the report is
    // counted as lost then.
    std::optional<std::string> sendMessage(const std::optional<Dictionary>& payload, TimeValue timestamp,
                                           uint16_t method, uint16_t respCode, SendFlag flag);
    // Sends the reports that are held. Calls `completion` (may be empty) exactly once, on any thread: at
    // once, or when the server has answered. Returns the answer for the message log, if there is one. Base:
    // completes at once without answer and error.
    virtual std::optional<std::string> flushMessagesWithCompletion(FlushCompletion completion);
    // Uploads one of the client's files, which `upload.files` opens if the client may read it. Calls `done`
    // once, on the strand: when the server has answered, or at once. `uploaded`: whether a request was sent,
    // even if that failed. Base: false. Overriders enter the upload and its outcome in their account of
    // uploads.
    virtual void uploadFileAtPath(const FileUpload& upload, UploadCompletion done);
    // Uploads an array of log records. Calls `done` likewise. `uploaded`: whether the server has it. Base:
    // false. Overriders count the upload likewise.
    virtual void uploadLogData(const Array& records, const Perform& perform, UploadCompletion done);
    // Sets the dotted ID of the session and its ancestors.
    virtual void setCorrelatedSessionID(const std::string& combinedSessionID);

    // Whether the white list admits the category. No list admits every category, an empty one admits no
    // category.
    bool isWhitelistedEvent(uint16_t category) const;
    // Whether the black list excludes the category. No list, like an empty one, excludes no category.
    bool isBlacklistedEvent(uint16_t category) const;
    // The outcome of a report that one of the two lists excludes, which is logged at level 7 under the name
    // `operation`. `std::nullopt` if both admit it.
    std::optional<ReportOutcome> exclusionOf(uint16_t category, const char* operation) const;

    const std::string& name() const { return name_; }
    const std::string* displayURL() const { return displayURL_; }  // of the profile; null: none
    uint16_t eventID() const { return eventID_; }                  // of the last report; 0 before the first
    ReportAccount& reports() const { return *reports_; }
    // The policy that updateState() decided last. Its threshold is the bag's, even if the backend's was
    // replaced by that of the parent session.
    const ReportingPolicy& policy() const { return policy_; }

    BackendState state() const { return state_.load(); }
    // The reason of the state. It may lag behind a concurrent change of the state.
    Decision reason() const { return reason_.load(); }
    void setState(BackendState state, Decision reason = Decision::unconditional);
    std::optional<double> samplingThreshold() const TELVORA_EXCLUDES(thresholdLock_);
    void setSamplingThreshold(std::optional<double> threshold) TELVORA_EXCLUDES(thresholdLock_);
    ReportingState reportingState() const { return {state(), reason(), samplingThreshold()}; }
    // Takes over the state of the parent's backend, unless this one is sampled out. Returns whether it did.
    bool followState(BackendState parents);

    void setCombinedSessionIDString(std::string id) { combinedSessionIDString_ = std::move(id); }
    // `userInfo` is shared with the session and its other backends; null: the client gave none.
    void setUserInfoDict(std::shared_ptr<const Dictionary> userInfo) { userInfoDict_ = std::move(userInfo); }

  protected:
    // Draws the sampling factor and opens the backend's account. `identity` is not null.
    TelvoraBackend(const BackendServices& services, std::string name, BackendProfile profile,
                   SharedIdentity identity);

    // Changes the state from `from` to `to`, for this reason. False if it is not `from`.
    bool changeState(BackendState from, BackendState to, Decision reason);
    // Called after each change of state, on the thread that made it. The base does not react.
    virtual void stateChanged() {}

    // The account of the client's uploads.
    std::shared_ptr<ReportAccount> uploads() const;

    // The profile if it is a dictionary, else null.
    const Dictionary* profileDictionary() const;

    const BackendServices& services_;
    const std::string name_;
    const BackendProfile profile_;
    const SharedIdentity identity_;  // not null
    const double samplingFactor_;
    const std::shared_ptr<ReportAccount> reports_;
    const QuotaUser user_;

    uint16_t eventID_ = 0;
    InFlightReports current_;  // the report that is being sent
    std::optional<std::string> combinedSessionIDString_;
    const std::string* displayURL_ = nullptr;  // of the profile
    std::shared_ptr<const Dictionary> userInfoDict_;
    ReportingPolicy policy_;  // refers to the profile

  private:
    std::atomic<BackendState> state_{BackendState::waitingForUserInfo};
    std::atomic<Decision> reason_{Decision::userInfoMissing};
    mutable Mutex thresholdLock_;
    std::optional<double> samplingThreshold_ TELVORA_GUARDED_BY(thresholdLock_);
};

}  // namespace telvora
