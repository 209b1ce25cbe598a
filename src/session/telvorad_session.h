// SPDX-License-Identifier: Apache-2.0
//
// TelvoradSession: the daemon's side of one client connection. It configures itself from the client's session
// info and a bag, passes every report to its backends, and synchronises with the sessions of its hierarchy.
//
// The operations of ClientSessionInterface run on the connection's strand, one after another, and so does all
// work of the session's backends. No lock is held during that work, as a metrics adaptor may block. Other
// sessions of the same hierarchy, on other strands, read the session's identity (`identityLock_`), change its
// backends' states, which are atomic, and leave a new combined ID for the strand (`backendsLock_`). Both
// locks are held only briefly, because threads that wait for them may hold the hierarchy lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "access/client_files.h"
#include "protocol/client_session_interface.h"
#include "session/create_backends.h"
#include "session/telvorad_session_delegate.h"
#include "util/message_log.h"
#include "util/mutex.h"

namespace telvora {

// Interfaces of sessions to the rest of the system. All references outlive every session.
struct SessionServices {
    const BackendServices& backendServices;  // also device, user defaults, clock and country of the session
    const ClientFramework& framework;
    const MessageLog& messageLog;
    UploadAdmission& uploadAdmission;
    ReportLedger& ledger;
    // Directories in which clients' files may be read by name, and removed; without symbolic links.
    std::vector<std::filesystem::path> uploadDirectories = {};
};

class TelvoradSession final : public ClientSessionInterface,
                              public std::enable_shared_from_this<TelvoradSession> {
  public:
    // `services` and `delegate` outlive the session. `connection` carries the session's calls to its client,
    // whose files are `clientFiles` and whose user is `uid`, with the quotas of `user`.
    TelvoradSession(const SessionServices& services, TelvoradSessionDelegate& delegate,
                    std::shared_ptr<ClientSessionReplyInterface> connection,
                    std::shared_ptr<ClientFiles> clientFiles, QuotaUser user, uid_t uid);

    // Ends the session: sends the end message, flushes, ends aggregation and cleans the backends up. Called
    // once, on the connection's strand, after the connection has ended and the session has left the registry.
    void dealloc();

    // Operations of the client; see ClientSessionInterface.
    void setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                        std::vector<std::string> frameworksToCheck, bool hasAggregationBlock) override;
    void startConfigWithCompletionHandler(ReportingStatesReply completionHandler) override;
    void fetchStatesWithUserInfo(std::optional<Dictionary> userInfo,
                                 ReportingStatesReply completionHandler) override;
    void fetchDisplayURL(std::function<void(std::string displayURL)> reply) override;
    void sendMessageWithCategory(uint16_t category, uint16_t type, std::optional<Dictionary> payload,
                                 StringReply reply) override;
    void sendMessageWithDictionary(Dictionary message, StringReply reply) override;
    void flushMessagesWithCompletion(FlushReply completion) override;
    void finishSessionWithReply(StringReply reply) override;
    void uploadFileAtPath(std::string fileURL, std::string extensionToken,
                          UploadFileReply completionHandler) override;
    void uploadLogData(Array records, UploadLogDataReply completionHandler) override;
    void sendMessageWithSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                    uint16_t category, uint16_t type, std::optional<Dictionary> payload,
                                    TextReply reply) override;

    // Identity of the session, readable from any thread.
    uint32_t sessionID() const { return sessionID_.load(); }
    const std::string& sessionIDString() const { return sessionIDString_; }
    std::shared_ptr<const Dictionary> sessionInfo() const;
    std::shared_ptr<const Dictionary> userInfo() const;  // null: no user info
    bool hasAggregator() const { return hasAggregator_.load(); }
    int64_t hierarchyLevel() const { return hierarchyLevel_.load(); }
    std::optional<std::string> hierarchyToken() const;  // absent: a standalone session
    // Sessions with the same token form a hierarchy only if this user is the same, too: the client's user, or
    // one whose hierarchies that user shares (shared_hierarchies.h).
    uid_t hierarchyUser() const { return hierarchyUser_.load(); }
    // Whether the session ever had a hierarchy token, under which it may still be listed.
    bool everInHierarchy() const { return everInHierarchy_.load(); }
    std::string description() const;
    // The identity and the backends' states and accounts, for administrators
    // (com.zandor.telvorad.Status.xml).
    Dictionary status() const;

    // Called by SessionHierarchies under the hierarchy lock, on any thread.
    void updateCombinedSessionID();
    void syncReportingStates();
    void shutdownSessionAggregation();

  private:
    using UserInfo = std::shared_ptr<const Dictionary>;

    // Configuration.
    // Calls `work` on the connection's strand with the bag of the session's client type, or null.
    void withStorebag(StorebagReply work);
    void configure(const std::shared_ptr<const Dictionary>& storebag,
                   const ReportingStatesReply& completionHandler);
    void takeSessionInfo(Dictionary sessionInfo);
    bool mayKeep(const Dictionary& info, const char* kind, QuotaCharge& charge) const;
    void createBackendsWithStorebag(const std::shared_ptr<const Dictionary>& storebag);
    void updateUserInfoForBackends();
    void updateSessionWithDefaultSessionInfo();
    void receivedUserInfo(std::optional<Dictionary> userInfo);
    bool requiresUserInfo() const;
    void sendStartMessage();
    void sendEndMessage();

    // Messages.
    std::optional<std::string> sendMessage(uint16_t category, uint16_t type,
                                           const std::optional<Dictionary>& payload);
    std::optional<std::string> sendMessage(const Dictionary& message);
    std::optional<std::string> submitMessage(uint16_t category, uint16_t type,
                                             const std::optional<Dictionary>& payload, SendFlag flag);
    void internalSendMessage(const Dictionary& payload, uint16_t method, uint16_t respCode);
    // Whether a report can be sent. Logs and counts the report if there is no backend dictionary.
    bool hasBackends();
    void countUnsent(ReportOutcome cause) { accounts_->of(ClientAccounts::kNoBackend)->accept(cause); }
    // The backends, under the newest combined ID. Null if there is no backend dictionary. Called on the
    // connection's strand, which alone may own them: the last owner's release calls into adaptors.
    std::shared_ptr<const BackendDictionary> backends() TELVORA_EXCLUDES(backendsLock_);
    // Returns the former backends.
    std::shared_ptr<const BackendDictionary> replaceBackends(
        std::shared_ptr<const BackendDictionary> backends) TELVORA_EXCLUDES(backendsLock_);

    // Flush and uploads.
    void internalFlushMessagesWithCompletion(FlushReply completion);
    void uploadFileWithURL(const std::string& fileURL, const std::string& extensionToken,
                           UploadFileReply completionHandler);
    using UploadStart = std::function<void(TelvoraBackend& backend, UploadCompletion done)>;
    // An upload that goes through one backend after another.
    struct UploadRun {
        std::shared_ptr<const BackendDictionary> backends;  // null: none
        UploadStart start;
        UploadCompletion done;
        BackendDictionary::const_iterator next = {};
        bool uploaded = false;  // through one at least
    };
    void uploadThroughBackends(UploadStart start, UploadCompletion done);
    static void continueUpload(const std::shared_ptr<UploadRun>& run, bool uploaded);
    Perform performOnStrand() const;

    // Aggregation.
    void aggregateMessage(double timestamp, uint16_t category, uint16_t type,
                          const std::optional<Dictionary>& payload);
    void sendToAggregator(const std::shared_ptr<const Dictionary>& sessionInfo, double timestamp,
                          uint16_t category, uint16_t type, std::optional<Dictionary> payload);

    // Reporting states.
    std::map<std::string, ReportingState> backendStates() const TELVORA_EXCLUDES(backendsLock_);
    void updateReportingStates();
    std::optional<std::vector<std::string>> fetchReportingStates() const;

    // One-shot messages, which have backends of their own.
    static void sendMessageWithSessionInfo(const SessionServices& services, const Dictionary& sessionInfo,
                                           const UserInfo& userInfo,
                                           const std::shared_ptr<const Dictionary>& storebag,
                                           uint16_t category, uint16_t type,
                                           const std::optional<Dictionary>& payload,
                                           const std::shared_ptr<ClientAccounts>& accounts);

    const SessionServices& services_;
    TelvoradSessionDelegate& sessionDelegate_;
    SessionHierarchies& hierarchies_;
    const std::shared_ptr<ClientSessionReplyInterface> connection_;
    const std::shared_ptr<ClientFiles> clientFiles_;
    const std::string sessionIDString_;
    const uid_t uid_;
    const QuotaUser user_;
    const std::shared_ptr<ClientAccounts> accounts_;
    const DeviceIDBuffer deviceid_;

    std::atomic<uint32_t> sessionID_{0};
    std::atomic<bool> hasAggregator_{false};
    std::atomic<int64_t> hierarchyLevel_{0};
    std::atomic<bool> everInHierarchy_{false};
    std::atomic<uid_t> hierarchyUser_;

    mutable Mutex identityLock_{LockRank::session};
    std::shared_ptr<const Dictionary> sessionInfo_ TELVORA_GUARDED_BY(identityLock_);
    UserInfo userInfo_ TELVORA_GUARDED_BY(identityLock_);
    std::optional<std::string> hierarchyToken_ TELVORA_GUARDED_BY(identityLock_);

    mutable Mutex backendsLock_{LockRank::session};
    // Null: no backend dictionary. Replaced only on the connection's strand.
    std::shared_ptr<const BackendDictionary> backends_ TELVORA_GUARDED_BY(backendsLock_);
    // A combined ID that the strand sets in the backends before their next operation.
    std::optional<std::string> newCombinedID_ TELVORA_GUARDED_BY(backendsLock_);

    // Used only on the connection's strand.
    std::vector<std::string> frameworks_;
    std::optional<std::string> storebagVersion_;
    QuotaCharge sessionInfoCharge_;
    QuotaCharge userInfoCharge_;
};

// Reads the device's unique identifier into a zeroed buffer.
DeviceIDBuffer uniqueDeviceID(const DeviceIdentity& identity);

}  // namespace telvora
