// SPDX-License-Identifier: Apache-2.0
#include "backends/telvora_backend.h"

#include <array>
#include <new>

#include "config/client_framework.h"
#include "policy/client_entry.h"
#include "util/log.h"

namespace telvora {

namespace {

std::shared_ptr<ReportAccount> accountOf(const BackendIdentity& identity, const std::string& name) {
    return identity.accounts ? identity.accounts->of(name) : std::make_shared<ReportAccount>();
}

}  // namespace

SelfVersion::SelfVersion(std::string_view version) : components(versionComponents(version)) {
    text = std::to_string(components[0]) + "." + std::to_string(components[1]);
    if (components[2] != 0) text += "." + std::to_string(components[2]);
}

TelvoraBackend::TelvoraBackend(const BackendServices& services, std::string name, BackendProfile profile,
                               SharedIdentity identity)
    : services_(services),
      name_(std::move(name)),
      profile_(std::move(profile)),
      identity_(std::move(identity)),
      samplingFactor_(services.random()),
      reports_(accountOf(*identity_, name_)),
      user_(identity_->accounts ? identity_->accounts->user() : QuotaUser()) {
    policy_.batchEvents = identity_->batchEvents;
}

TelvoraBackend::~TelvoraBackend() = default;

void TelvoraBackend::cleanup() {}

std::shared_ptr<ReportAccount> TelvoraBackend::uploads() const {
    return accountOf(*identity_, ClientAccounts::kUploads);
}

void TelvoraBackend::updateState() {
    setState(BackendState::reporting);
}

std::optional<double> TelvoraBackend::samplingThreshold() const {
    const MutexLock lock(thresholdLock_);
    return samplingThreshold_;
}

void TelvoraBackend::setSamplingThreshold(std::optional<double> threshold) {
    const MutexLock lock(thresholdLock_);
    samplingThreshold_ = threshold;
}

void TelvoraBackend::setState(BackendState state, Decision reason) {
    reason_.store(reason);
    state_.store(state);
    stateChanged();
}

bool TelvoraBackend::changeState(BackendState from, BackendState to, Decision reason) {
    if (!state_.compare_exchange_strong(from, to)) return false;
    reason_.store(reason);
    stateChanged();
    return true;
}

bool TelvoraBackend::followState(BackendState parents) {
    BackendState current = state();
    while (current != BackendState::sampledOut) {
        if (changeState(current, parents, Decision::parentFollowed)) return true;
        current = state();
    }
    return false;
}

std::optional<std::string> TelvoraBackend::sendMessage(const std::optional<Dictionary>& /*payload*/,
                                                       TimeValue /*timestamp*/, uint16_t /*method*/,
                                                       uint16_t /*respCode*/, EventID /*eventID*/,
                                                       SendFlag /*flag*/) {
    current_.settle(ReportOutcome::notSupported);
    return std::nullopt;
}

std::optional<std::string> TelvoraBackend::sendMessage(const std::optional<Dictionary>& payload,
                                                       TimeValue timestamp, uint16_t method,
                                                       uint16_t respCode, SendFlag flag) {
    ++eventID_;
    reports_->accept();
    current_ = InFlightReports(reports_, 1);
    try {
        return sendMessage(payload, timestamp, method, respCode, EventID{eventID_}, flag);
    } catch (const std::bad_alloc&) {
        current_.settle(ReportOutcome::noMemory);
        throw;
    }
}

std::optional<std::string> TelvoraBackend::flushMessagesWithCompletion(FlushCompletion completion) {
    // Overriders keep the completion; this one is done with it.
    const FlushCompletion called = std::move(completion);
    if (called) called(std::nullopt, std::nullopt);
    return std::nullopt;
}

void TelvoraBackend::uploadFileAtPath(const FileUpload& /*upload*/, UploadCompletion done) {
    done(false);
}

void TelvoraBackend::uploadLogData(const Array& /*records*/, const Perform& /*perform*/,
                                   UploadCompletion done) {
    done(false);
}

void TelvoraBackend::setCorrelatedSessionID(const std::string& combinedSessionID) {
    combinedSessionIDString_ = combinedSessionID;
}

bool TelvoraBackend::isWhitelistedEvent(uint16_t category) const {
    return policy_.eventWhitelist == nullptr || listHoldsCategory(*policy_.eventWhitelist, category);
}

bool TelvoraBackend::isBlacklistedEvent(uint16_t category) const {
    return policy_.eventBlacklist != nullptr && listHoldsCategory(*policy_.eventBlacklist, category);
}

std::optional<ReportOutcome> TelvoraBackend::exclusionOf(uint16_t category, const char* operation) const {
    if (!isWhitelistedEvent(category)) {
        TELVORA_LOG(kLogDebug, "%s: Dropping event with category %d as it is not whitelisted for backend %s",
                    operation, category, name_.c_str());
        return ReportOutcome::notWhitelisted;
    }
    if (isBlacklistedEvent(category)) {
        TELVORA_LOG(kLogDebug, "%s: Dropping event with category %d as it is blacklisted for backend %s",
                    operation, category, name_.c_str());
        return ReportOutcome::blacklisted;
    }
    return std::nullopt;
}

const Dictionary* TelvoraBackend::profileDictionary() const {
    return profile_ ? profile_->getIf<Dictionary>() : nullptr;
}

}  // namespace telvora
