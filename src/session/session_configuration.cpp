// SPDX-License-Identifier: Apache-2.0
//
// Construction and end of a session; its configuration from session info, bag and user info.
#include <algorithm>
#include <limits>

#include "backends/event_record.h"
#include "config/client_type.h"
#include "platform/known_settings.h"
#include "platform/uuid.h"
#include "session/shared_hierarchies.h"
#include "session/telvorad_session.h"
#include "telvora/keys.h"
#include "util/attempt.h"
#include "util/base64.h"
#include "util/log.h"

namespace telvora {

namespace {

std::string freshSessionIDString() {
    const auto bytes = randomUuidBytes();
    return base64Encode({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

bool sameString(const Dictionary& a, const Dictionary& b, std::string_view key) {
    const std::string* left = a.string(key);
    const std::string* right = b.string(key);
    return left != nullptr && right != nullptr && *left == *right;
}

// Limits of what a session keeps of its client's description.
constexpr size_t kMaxInfoBytes = size_t{64} << 10;
constexpr size_t kMaxTokenBytes = 512;

size_t sizeOf(const std::vector<std::string>& texts) {
    size_t size = 0;
    for (const std::string& text : texts)
        size += sizeof text + text.size();
    return size;
}

constexpr char kNoDisplayURL[] = "URL not available";

// The level of a hierarchy token. Levels below the lowest number but one are raised to that, so that the
// level of the parent does not overflow.
int64_t levelOf(const Dictionary& token) {
    constexpr int64_t kLowest = std::numeric_limits<int64_t>::min() + 1;
    return std::max(token.integer(kTelvoraHierarchyTokenLevel).value_or(0), kLowest);
}

// A dictionary that was read entry by entry has room for more. An idle session needs none.
std::shared_ptr<const Dictionary> withoutSpareRoom(const Dictionary& info) {
    return std::make_shared<const Dictionary>(info);
}

}  // namespace

DeviceIDBuffer uniqueDeviceID(const DeviceIdentity& identity) {
    DeviceIDBuffer buffer{};
    identity.copyUniqueDeviceID(buffer);
    return buffer;
}

TelvoradSession::TelvoradSession(const SessionServices& services, TelvoradSessionDelegate& delegate,
                                 std::shared_ptr<ClientSessionReplyInterface> connection,
                                 std::shared_ptr<ClientFiles> clientFiles, QuotaUser user, uid_t uid)
    : services_(services),
      sessionDelegate_(delegate),
      hierarchies_(delegate.hierarchies()),
      connection_(std::move(connection)),
      clientFiles_(std::move(clientFiles)),
      sessionIDString_(freshSessionIDString()),
      uid_(uid),
      user_(user),
      accounts_(std::make_shared<ClientAccounts>(services.ledger, std::move(user))),
      deviceid_(uniqueDeviceID(services.backendServices.identity)),
      hierarchyUser_(uid),
      sessionInfo_(std::make_shared<const Dictionary>()) {
    TELVORA_LOG(kLogDebug,
                "initWithSessionDelegate: TelvoradSession initWithSessionDelegate:<TelvoradAgent %p>",
                static_cast<void*>(&sessionDelegate_));
    TELVORA_LOG(kLogDebug, "initWithSessionDelegate: Initialized session with UUID %s",
                sessionIDString_.c_str());
}

void TelvoradSession::dealloc() {
    TELVORA_LOG(kLogDebug, "dealloc: TelvoradSession dealloc: %u", sessionID());
    attempt("dealloc", [this] { sendEndMessage(); });
    attempt("dealloc", [this] { flushMessagesWithCompletion({}); });
    attempt("dealloc", [this] { shutdownSessionAggregation(); });
    if (const auto ended = replaceBackends(nullptr)) {
        for (const auto& [name, backend] : *ended)
            attempt("dealloc", [&ended = *backend] { ended.cleanup(); });
    }
}

std::shared_ptr<const Dictionary> TelvoradSession::sessionInfo() const {
    const MutexLock lock(identityLock_);
    return sessionInfo_;
}

std::shared_ptr<const Dictionary> TelvoradSession::userInfo() const {
    const MutexLock lock(identityLock_);
    return userInfo_;
}

std::optional<std::string> TelvoradSession::hierarchyToken() const {
    const MutexLock lock(identityLock_);
    return hierarchyToken_;
}

std::string TelvoradSession::description() const {
    return "<TelvoradSession " + std::to_string(sessionID()) + " " + sessionIDString_ + ">";
}

void TelvoradSession::setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                     std::vector<std::string> frameworksToCheck, bool hasAggregationBlock) {
    const auto id =
        static_cast<uint32_t>(sessionInfo.wrappedInteger(kTelvoraSessionInfoSessionID).value_or(0));
    TELVORA_LOG(kLogDebug, "setSessionInfo: Configuring session %u", id);
    if (userInfo && !sessionInfo.boolean(kTelvoraSessionInfoRequireUserInfo)) {
        TELVORA_LOG(kLogWarning,
                    "setSessionInfo: Configure session: user info provided without requiring it");
    }
    takeSessionInfo(std::move(sessionInfo));
    if (userInfo && !mayKeep(*userInfo, "user info", userInfoCharge_)) userInfo.reset();
    frameworks_ = std::move(frameworksToCheck);
    if (sizeOf(frameworks_) > kMaxInfoBytes) frameworks_ = {};
    {
        const MutexLock lock(identityLock_);
        userInfo_ = userInfo ? withoutSpareRoom(*userInfo) : nullptr;
    }
    hasAggregator_ = hasAggregationBlock;
}

// Sets the session's identity and adds the session to the hierarchy that it names.
void TelvoradSession::takeSessionInfo(Dictionary sessionInfo) {
    if (!mayKeep(sessionInfo, "session info", sessionInfoCharge_)) sessionInfo = {};
    sessionID_ = static_cast<uint32_t>(sessionInfo.wrappedInteger(kTelvoraSessionInfoSessionID).value_or(0));
    if (sessionInfo.dictionary(kTelvoraSessionInfoHierarchyToken) != nullptr) {
        hierarchyUser_ = hierarchyUserOf(uid_, services_.backendServices.defaults);
    }
    {
        const MutexLock lock(identityLock_);
        hierarchyToken_.reset();
        hierarchyLevel_ = 0;
        if (const Dictionary* token = sessionInfo.dictionary(kTelvoraSessionInfoHierarchyToken)) {
            hierarchyLevel_ = levelOf(*token);
            if (const std::string* tokenID = token->string(kTelvoraHierarchyTokenTokenID)) {
                hierarchyToken_ = *tokenID;
                everInHierarchy_ = true;
            }
        }
        const int64_t type = sessionInfo.wrappedInteger(kTelvoraSessionInfoClientType).value_or(0);
        accounts_->setClientType(factsOfClientType(type) != nullptr ? static_cast<int>(type)
                                                                    : ReportLedger::kNoClientType);
        sessionInfo_ = withoutSpareRoom(sessionInfo);
    }
    hierarchies_.updateCorrelatedSessions(shared_from_this());
}

// Whether a session info or user info is small enough to be kept. Charges it to the user then.
bool TelvoradSession::mayKeep(const Dictionary& info, const char* kind, QuotaCharge& charge) const {
    const size_t size = approximateSize(info);
    const Dictionary* token = info.dictionary(kTelvoraSessionInfoHierarchyToken);
    const std::string* tokenID = token != nullptr ? token->string(kTelvoraHierarchyTokenTokenID) : nullptr;
    if (size > kMaxInfoBytes || (tokenID != nullptr && tokenID->size() > kMaxTokenBytes)) {
        TELVORA_LOG(kLogError,
                    "%s: the %s is ignored: it takes more than %zu bytes, or its token more than %zu",
                    description().c_str(), kind, kMaxInfoBytes, kMaxTokenBytes);
        return false;
    }
    QuotaCharge taken;
    if (!user_.take(Quota::sessionBytes, size, taken)) return false;
    charge = std::move(taken);
    return true;
}

void TelvoradSession::startConfigWithCompletionHandler(ReportingStatesReply completionHandler) {
    TELVORA_LOG(kLogDebug, "startConfigWithCompletionHandler: Starting configuration for session %u",
                sessionID());
    withStorebag([self = shared_from_this(), reply = std::move(completionHandler)](const auto& storebag) {
        self->configure(storebag, reply);
    });
}

void TelvoradSession::withStorebag(StorebagReply work) {
    sessionDelegate_.storebagForSession(
        *this, [connection = connection_, work = std::move(work)](const auto& storebag) mutable {
            // Moved: an exception in the work ends what is to be answered.
            connection->perform([work = std::move(work), storebag] { work(storebag); });
        });
}

void TelvoradSession::configure(const std::shared_ptr<const Dictionary>& storebag,
                                const ReportingStatesReply& completionHandler) {
    if (!storebag) {
        if (completionHandler) completionHandler(std::nullopt);
        return;
    }
    storebagVersion_ = sessionDelegate_.storebagVersionForSession(*this);
    createBackendsWithStorebag(storebag);
    updateSessionWithDefaultSessionInfo();
    sendStartMessage();
    if (completionHandler) completionHandler(fetchReportingStates());
}

void TelvoradSession::fetchStatesWithUserInfo(std::optional<Dictionary> userInfo,
                                              ReportingStatesReply completionHandler) {
    TELVORA_LOG(kLogDebug, "fetchStatesWithUserInfo: Fetching states for session %u", sessionID());
    receivedUserInfo(std::move(userInfo));
    if (completionHandler) completionHandler(fetchReportingStates());
}

void TelvoradSession::fetchDisplayURL(std::function<void(std::string displayURL)> reply) {
    TELVORA_LOG(kLogDebug, "fetchDisplayURL: Fetching display URL for session %u", sessionID());
    if (const auto current = backends()) {
        for (const char* name :
             {kTelvoraBackendHTTPPost, kTelvoraBackendHTTPPost2, kTelvoraBackendDashboard}) {
            const auto backend = current->find(name);
            if (backend != current->end() && backend->second->displayURL() != nullptr)
                return reply(*backend->second->displayURL());
        }
    }
    reply(kNoDisplayURL);
}

void TelvoradSession::createBackendsWithStorebag(const std::shared_ptr<const Dictionary>& storebag) {
    TELVORA_LOG(kLogDebug, "createBackendsWithStorebag: Creating backends for session %u", sessionID());
    std::optional<BackendDictionary> created =
        TelvoradUtil::createBackends(services_.backendServices, services_.framework, storebag,
                                     sessionInfo().get(), userInfo(), deviceid_, accounts_);
    std::shared_ptr<const BackendDictionary> backends;
    if (created) {
        for (const auto& [name, backend] : *created)
            backend->setCombinedSessionIDString(sessionIDString_);
        backends = std::make_shared<const BackendDictionary>(std::move(*created));
    }
    const auto former = replaceBackends(std::move(backends));
    uint64_t held = 0;
    for (const auto& [name, backend] : former ? *former : BackendDictionary())
        held += backend->reports().tally()[ReportOutcome::held];
    if (held == 0) return;
    TELVORA_LOG(
        kLogWarning,
        "createBackendsWithStorebag: Session %u is configured anew without a flush: %llu reports that its backends held are lost",
        sessionID(), static_cast<unsigned long long>(held));
}

std::shared_ptr<const BackendDictionary> TelvoradSession::backends() {
    std::shared_ptr<const BackendDictionary> current;
    std::optional<std::string> combinedID;
    {
        const MutexLock lock(backendsLock_);
        current = backends_;
        combinedID = std::exchange(newCombinedID_, std::nullopt);
    }
    if (current && combinedID) {
        for (const auto& [name, backend] : *current)
            backend->setCorrelatedSessionID(*combinedID);
    }
    return current;
}

std::shared_ptr<const BackendDictionary> TelvoradSession::replaceBackends(
    std::shared_ptr<const BackendDictionary> backends) {
    const MutexLock lock(backendsLock_);
    backends_.swap(backends);
    newCombinedID_.reset();
    return backends;
}

void TelvoradSession::receivedUserInfo(std::optional<Dictionary> newUserInfo) {
    const UserInfo oldUserInfo = userInfo();
    if (newUserInfo && !mayKeep(*newUserInfo, "user info", userInfoCharge_)) return;
    if (!oldUserInfo && !newUserInfo) return;
    if (oldUserInfo && !newUserInfo && requiresUserInfo()) return;

    const bool namesUnchanged = oldUserInfo && newUserInfo &&
                                sameString(*oldUserInfo, *newUserInfo, kTelvoraUserInfoClientName) &&
                                sameString(*oldUserInfo, *newUserInfo, kTelvoraUserInfoServiceName);
    {
        const MutexLock lock(identityLock_);
        userInfo_ = newUserInfo ? withoutSpareRoom(*newUserInfo) : nullptr;
    }
    updateUserInfoForBackends();
    if (namesUnchanged) return;
    TELVORA_LOG(kLogDebug, "receivedUserInfo: Received new user info for session %u", sessionID());
    updateSessionWithDefaultSessionInfo();
}

void TelvoradSession::updateUserInfoForBackends() {
    const UserInfo current = userInfo();
    const auto all = backends();
    if (!all) return;
    for (const auto& [name, backend] : *all)
        backend->setUserInfoDict(current);
}

void TelvoradSession::updateSessionWithDefaultSessionInfo() {
    updateReportingStates();
    hierarchies_.updateDownstreamSessions(*this);
}

bool TelvoradSession::requiresUserInfo() const {
    return sessionInfo()->boolean(kTelvoraSessionInfoRequireUserInfo);
}

void TelvoradSession::sendStartMessage() {
    const DeviceIdentity& identity = services_.backendServices.identity;
    Dictionary payload;
    if (identity.isInternal()) {
        payload.set("SerialNum", identity.serialNumber().value_or("Unknown"));
        payload.set("Version", identity.productVersion().value_or("Unknown"));
        payload.set("Build", identity.buildVersion().value_or("Unknown"));
        payload.set("Hardware", identity.hardwareModel().value_or("Unknown"));
        payload.set("Product", identity.deviceName().value_or("Unknown"));
        payload.set("ReportVers", services_.framework.bundleVersion());
    }
    payload.set("Locale", services_.backendServices.countryCode().value_or(""));
    const std::optional<PropertyList> automatic = services_.backendServices.defaults.value(
        settings::kAutomaticTimeZone.domain, settings::kAutomaticTimeZone.key);
    payload.set("AutomaticTimeSet", automatic ? automatic->boolValue() : true);
    internalSendMessage(payload, 0, 0);
}

void TelvoradSession::sendEndMessage() {
    Dictionary payload;
    if (storebagVersion_) payload.set("StorebagVersion", *storebagVersion_);
    internalSendMessage(payload, 0, 1);
}

}  // namespace telvora
