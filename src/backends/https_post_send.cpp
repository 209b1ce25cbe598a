// SPDX-License-Identifier: Apache-2.0
//
// Drops, holds or posts a report; flushes the batch.
#include <algorithm>

#include "backends/event_record.h"
#include "backends/https_post_backend.h"
#include "config/client_type.h"
#include "outgoing/outgoing_feed.h"
#include "policy/absent_text.h"
#include "telvora/keys.h"
#include "util/log.h"

namespace telvora {

namespace {

// Category and type of the report that ends a session.
constexpr uint16_t kSessionMethod = 0;
constexpr uint16_t kSessionStop = 1;

// A client that spreads its reports over many methods must not fill the memory: a batch of this size, in
// bytes, is flushed like one that has reached the event threshold.
constexpr size_t kMaxBatchBytes = size_t{8} << 20;

// The loss of the reports that a flush discards in this state.
ReportOutcome lossInState(BackendState state) {
    if (state == BackendState::sampledOut) return ReportOutcome::sampledOut;
    return state == BackendState::waitingForUserInfo ? ReportOutcome::noUserInfo : ReportOutcome::disabled;
}

void completeWithError(const FlushCompletion& completion, const char* message) {
    if (completion) completion(std::nullopt, makeTelvoraError(message, -1));
}

}  // namespace

std::optional<std::string> HTTPSPostBackend::sendMessage(const std::optional<Dictionary>& payload,
                                                         TimeValue timestamp, uint16_t method,
                                                         uint16_t respCode, EventID /*eventID*/,
                                                         SendFlag flag) {
    if (state() == BackendState::disabled) {
        current_.settle(ReportOutcome::disabled, reason());
        return std::nullopt;
    }
    Dictionary record = method == kSessionMethod && respCode == kSessionStop
                            ? newEvent(stopMessagePayload(payload), timestamp, method, respCode)
                            : newEvent(payload, timestamp, method, respCode);

    if (isPromoting(flag)) {
        changeState(BackendState::sampledOut, BackendState::reporting, Decision::promoted);
    }
    TELVORA_LOG(kLogDebug, "HTTPSPostBackend(sendMessage): realtime is %d", isRealtime(flag) ? 1 : 0);
    const BackendState current = state();
    const bool held = current == BackendState::waitingForUserInfo || current == BackendState::sampledOut;
    if (held || (!isRealtime(flag) && policy_.batchEvents) || isUserInfoMissing()) {
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(sendMessage): Batching %d, %d, %d",
                    static_cast<int>(current), policy_.batchEvents ? 1 : 0,
                    identity_->requireUserInfo ? 1 : 0);
        return batchEvent(std::move(record));
    }
    return postDirectly(std::move(record), method, respCode, flag);
}

std::optional<Dictionary> HTTPSPostBackend::stopMessagePayload(
    const std::optional<Dictionary>& payload) const {
    TELVORA_LOG(
        kLogDebug,
        "HTTPSPostBackend(sendMessage): Adding dnu type and sampling threshold to SESSION_TYPE_STOP message dictionary");
    if (!payload) {
        TELVORA_LOG(kLogError, "HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil");
        return std::nullopt;
    }
    const auto numberOrMinusOne = [](const std::optional<double>& number) {
        return number ? PropertyList(*number) : PropertyList(-1);
    };
    Dictionary extended = *payload;
    extended.set("Opt", policy_.dnuType);
    extended.set("SamplingThreshold", numberOrMinusOne(samplingThreshold()));
    extended.set("OverrideSampling", numberOrMinusOne(policy_.overrideSampling));
    extended.set("Batch", policy_.batchEvents ? 1 : 0);
    return extended;
}

Dictionary HTTPSPostBackend::newEvent(const std::optional<Dictionary>& payload, TimeValue timestamp,
                                      uint16_t method, uint16_t respCode) const {
    const EventFields fields{
        .startTimeStamp = TelvoradUtil::secondsFromTimeValue(identity_->startTimestamp),
        .timestamp = timestamp,
        .sender = senderCodeForClientType(identity_->compType),
        .clientVersion = identity_->clientVersion,
        .combinedSessionID = combinedSessionIDString_,
        .numericSessionID = isSessionNumbered(identity_->compType, identity_->isInternal)
                                ? std::optional(identity_->sessionID)
                                : std::nullopt,
        .eventNumber = eventID_,
        .method = method,
        .status = respCode,
        .productFamily = identity_->device->name,
        .productModel = identity_->device->hardwareType,
        .osVersion = identity_->device->osVersion,
        .build = identity_->device->build,
        .internal = services_.identity.isInternal(),
        .reportVersion = identity_->selfVersion.text,
        .timezoneOffset = services_.timeZoneOffsetSeconds(),
    };
    Dictionary record = newEventDictfromPayload(payload, fields, userInfoDict_.get());
    const size_t unfiltered = record.size();
    applyFilters(record);
    // A copy reserves no memory for the entries that are gone.
    if (record.size() < unfiltered / 2) return Dictionary(std::as_const(record));
    return record;
}

void HTTPSPostBackend::applyFilters(Dictionary& record) const {
    const bool watched = services_.outgoing != nullptr && services_.outgoing->watched();
    if (services_.trace == nullptr && !watched) return filterEvent(policy_.filters, record);
    Dictionary keys;
    filterEvent(policy_.filters, record, [&](const std::string& key, const EventFilter& filter) {
        if (services_.trace != nullptr) services_.trace->filtered(name_, key, filter);
        if (watched) keys.set(key, filter.action == FilterAction::remove ? "removed" : "hashed");
    });
    if (keys.empty()) return;
    Dictionary entry{{outgoing::kKind, outgoing::kFiltered},
                     {outgoing::kBackend, name_},
                     {outgoing::kKeys, std::move(keys)}};
    if (const auto user = user_.uid()) entry.set(outgoing::kUser, static_cast<long long>(*user));
    for (const auto& [key, field] :
         {std::pair(outgoing::kEventNumber, "_eventNumber"), std::pair(outgoing::kCategory, "_method"),
          std::pair(outgoing::kType, "_status")}) {
        if (const PropertyList* value = record.find(field)) entry.set(key, *value);
    }
    if (auto clientName = userInfoText(userInfoDict_.get(), kTelvoraUserInfoClientName))
        entry.set(outgoing::kClientName, std::move(*clientName));
    services_.outgoing->add(std::move(entry));
}

std::optional<std::string> HTTPSPostBackend::postDirectly(Dictionary record, uint16_t method,
                                                          uint16_t respCode, SendFlag flag) {
    QuotaCharge charge;
    const size_t bytes = approximateSize(record);
    if (!user_.take(Quota::pendingBytes, bytes, charge)) return loseOverQuota();
    if (!user_.spendToday(bytes)) {
        current_.settle(ReportOutcome::overDailyQuota);
        return std::nullopt;
    }
    const bool flushFirst = state() == BackendState::reporting && isRealtime(flag) && !batchedEvents_.empty();
    std::optional<std::string> flushed;
    if (flushFirst) {
        TELVORA_LOG(
            kLogDebug,
            "HTTPSPostBackend(sendMessage): Got a realtime event and some events have already been batched. Forcing Flush here to keep events in order.");
        flushed = flushMessagesWithCompletion({});
    }
    TELVORA_LOG(kLogDebug, "HTTPSPostBackend(sendMessage): Sending %d, %d, %d", static_cast<int>(state()),
                policy_.batchEvents ? 1 : 0, identity_->requireUserInfo ? 1 : 0);
    std::optional<std::string> answer;
    std::string json = createMessageForPostAndLogging({&record, 1}, answer);
    if (flushFirst) {
        answer = std::string("Flushed events:\n") + textOrNull(flushed) + "\nStandalone event:\n" +
                 textOrNull(answer);
    }
    postJSONMessage(std::move(json), {std::move(current_), std::move(charge)}, flag, method, respCode, {});
    if (flushFirst) immutable_ = true;
    return answer;
}

std::optional<std::string> HTTPSPostBackend::batchEvent(Dictionary record) {
    const int64_t method = record.integer("_method").value_or(0);
    const size_t bytes = approximateSize(record) + 2 * sizeof record;  // the batch reserves for others, too
    const bool full = batchedBytes_ + bytes > kMaxBatchBytes;
    int32_t count = batchedOfMethod(method);
    std::optional<std::string> flushed;
    if (count > policy_.eventThreshold || full) {
        if (count > policy_.eventThreshold) {
            TELVORA_LOG(
                kLogDebug,
                "HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event threshold for method %d",
                static_cast<int>(method));
        }
        flushed = flushMessagesWithCompletion({});
        count = 0;
    }
    if (full && !batchedEvents_.empty()) {
        TELVORA_LOG(kLogWarning, "HTTPSPostBackend(batchEvent): dropping %zu events that can't be flushed",
                    batchedEvents_.size());
        loseBatch(ReportOutcome::batchFull);
    }
    int32_t& counted = batchedOfMethod(method);
    batchedEvents_.push_back(std::move(record));
    if (!chargeBatch(quotaOfBatch(), bytes)) {
        batchedEvents_.pop_back();
        std::optional<std::string> answer = loseOverQuota();
        return flushed ? flushed : answer;
    }
    current_.settle(ReportOutcome::held);
    batchedBytes_ += bytes;
    counted = count + 1;
    return flushed;
}

// The number of the batch's events of a method.
int32_t& HTTPSPostBackend::batchedOfMethod(int64_t method) {
    auto found =
        std::ranges::lower_bound(eventMethodCounts_, method, {}, &std::pair<int64_t, int32_t>::first);
    if (found == eventMethodCounts_.end() || found->first != method)
        found = eventMethodCounts_.insert(found, {method, 0});
    return found->second;
}

std::vector<Dictionary> HTTPSPostBackend::takeBatch() {
    decltype(eventMethodCounts_)().swap(eventMethodCounts_);  // clear() would keep the memory
    batchedBytes_ = 0;
    return std::exchange(batchedEvents_, {});
}

// A batch that a flush would discard now is dormant.
Quota HTTPSPostBackend::quotaOfBatch() const {
    const BackendState current = state();
    const bool dormant = current == BackendState::sampledOut || current == BackendState::disabled;
    return dormant ? Quota::dormantBytes : Quota::pendingBytes;
}

bool HTTPSPostBackend::chargeBatch(Quota quota, size_t bytes) {
    QuotaCharge more;
    if (!user_.take(quota, bytes, more)) return false;
    const MutexLock lock(batchChargeLock_);
    batchCharge_.add(std::move(more));
    batchCharge_.countAs(quotaOfBatch());
    return true;
}

QuotaCharge HTTPSPostBackend::takeBatchCharge() {
    const MutexLock lock(batchChargeLock_);
    return std::move(batchCharge_);
}

void HTTPSPostBackend::stateChanged() {
    const MutexLock lock(batchChargeLock_);
    batchCharge_.countAs(quotaOfBatch());
}

void HTTPSPostBackend::loseBatch(ReportOutcome cause) {
    reports_->move(takeBatch().size(), ReportOutcome::held, cause, reason());
    takeBatchCharge();
}

// Loses the report, but flushes the batch if possible, which makes room for later reports.
std::optional<std::string> HTTPSPostBackend::loseOverQuota() {
    current_.settle(ReportOutcome::overQuota);
    if (state() != BackendState::reporting || batchedEvents_.empty()) return std::nullopt;
    return flushMessagesWithCompletion({});
}

// Checks the lists again, which may have changed since the event was held, and the daily quotas.
std::optional<ReportOutcome> HTTPSPostBackend::exclusionOfHeld(const Dictionary& event) const {
    const auto category = static_cast<uint16_t>(event.wrappedInteger("_method").value_or(0));
    const auto excluded = exclusionOf(category, "flushMessagesWithCompletion");
    if (excluded || user_.spendToday(approximateSize(event))) return excluded;
    return ReportOutcome::overDailyQuota;
}

// Charges the user info that a flush merges into every event. Each event was charged with the user info that
// it was recorded with; one that has grown since could turn a small batch into a huge post.
bool HTTPSPostBackend::chargeUserInfo(const Dictionary& userInfo) {
    const size_t merged = approximateSize(userInfo) * batchedEvents_.size();
    return merged <= batchedBytes_ || chargeBatch(Quota::pendingBytes, merged - batchedBytes_);
}

std::optional<std::string> HTTPSPostBackend::flushMessagesWithCompletion(FlushCompletion completion) {
    const BackendState current = state();
    if (batchedEvents_.empty() || current != BackendState::reporting) {
        loseBatch(lossInState(current));
        completeWithError(completion, "Nothing to flush");
        return std::nullopt;
    }
    if (isUserInfoMissing()) {
        completeWithError(completion, "Can not flush: userInfo is required");
        return std::nullopt;
    }
    TELVORA_LOG(kLogDebug, "HTTPSPostBackend(flushMessagesWithCompletion): called");
    // The user info may have changed since the events were recorded.
    Dictionary userInfo = userInfoDict_ ? *userInfoDict_ : Dictionary();
    filterEvent(policy_.filters, userInfo);
    if (!chargeUserInfo(userInfo)) {
        loseBatch(ReportOutcome::overQuota);
        completeWithError(completion, "Can not flush: over quota");
        return std::nullopt;
    }
    return postBatch(userInfo, std::move(completion));
}

std::optional<std::string> HTTPSPostBackend::postBatch(const Dictionary& userInfo,
                                                       FlushCompletion completion) {
    QuotaCharge charge = takeBatchCharge();
    charge.countAs(Quota::pendingBytes);
    std::vector<Dictionary> events = takeBatch();
    reports_->move(events.size(), ReportOutcome::held, ReportOutcome::inFlight);
    Load load{InFlightReports(reports_, events.size()), std::move(charge)};
    std::erase_if(events, [&](const Dictionary& event) {
        const auto excluded = exclusionOfHeld(event);
        if (excluded) load.reports.settleOne(*excluded);
        return excluded.has_value();
    });
    if (events.empty()) {
        completeWithError(completion, "Nothing to flush: batched events were completely filtered out");
        return std::nullopt;
    }
    for (Dictionary& event : events)
        event.merge(userInfo);

    std::optional<std::string> pretty;
    std::string json = createMessageForPostAndLogging(events, pretty);
    PostCompletion whenPosted;
    if (completion) {
        load.answerBytes = pretty ? pretty->size() : 0;
        whenPosted = [answer = pretty,
                      completion = std::move(completion)](std::optional<TelvoraError> error) mutable {
            completion(std::move(answer), std::move(error));
        };
    }
    postJSONMessage(std::move(json), std::move(load), SendFlag{0}, std::nullopt, std::nullopt,
                    std::move(whenPosted));
    if (pretty) immutable_ = true;
    return pretty;
}

}  // namespace telvora
