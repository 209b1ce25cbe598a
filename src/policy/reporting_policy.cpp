// SPDX-License-Identifier: Apache-2.0
#include "policy/reporting_policy.h"

#include <algorithm>

#include "config/device_identity.h"
#include "policy/absent_text.h"
#include "policy/client_entry.h"
#include "telvora/keys.h"
#include "util/log.h"

namespace telvora {

namespace {

std::string descriptionOf(const Array& list) {
    std::string text;
    for (const PropertyList& entry : list) {
        text += text.empty() ? "" : ", ";
        text += entry.isNumber() ? std::to_string(*entry.integerValue()) : entry.shapeDescription();
    }
    return "(" + text + ")";
}

// Applies the entries of a bag to one session.
class PolicyUpdate {
  public:
    PolicyUpdate(ReportingPolicy& policy, const ReportingSituation& situation)
        : policy_(policy),
          situation_(situation),
          clientName_(userInfoText(situation.userInfo, kTelvoraUserInfoClientName)),
          serviceID_(userInfoText(situation.userInfo, kTelvoraUserInfoServiceName)) {}

    BackendState run();

  private:
    // The last decision of a run is the reason of the state.
    void decided(Decision decision, const Dictionary* subject = nullptr) const {
        policy_.decision = decision;
        if (situation_.trace == nullptr) return;
        situation_.trace->decided(situation_.backend, decision, subject, policy_);
    }

    void updateBatchEvents();
    BackendState stateWithoutUserInfo();
    std::optional<ClientEntry> entryForSession() const;
    BackendState stateFromEntry(const ClientEntry& entry);
    bool updateConsent(const ClientEntry& entry);
    bool isCountryAndDeviceAdmitted(const ClientEntry& entry,
                                    const std::optional<std::string>& countryCode) const;
    void updateSamplingThreshold(const ClientEntry& entry, const std::optional<std::string>& countryCode);
    BackendState stateFromSampling(const ClientEntry& entry);
    void resetWithEntry(const std::optional<ClientEntry>& entry);
    bool updatePostLink(const ClientEntry& entry);
    void updateEventLists(const ClientEntry& entry);

    ReportingPolicy& policy_;
    const ReportingSituation& situation_;
    const std::optional<std::string> clientName_;
    const std::optional<std::string> serviceID_;
};

BackendState PolicyUpdate::run() {
    policy_.entry = nullptr;
    updateBatchEvents();
    if (!situation_.requireUserInfo) return stateWithoutUserInfo();
    if (situation_.userInfo == nullptr) {
        decided(Decision::userInfoMissing);
        return BackendState::waitingForUserInfo;
    }
    const std::optional<ClientEntry> entry = entryForSession();
    if (!entry) {
        decided(Decision::noEntry);
        return BackendState::disabled;
    }
    policy_.entry = &entry->content();
    decided(Decision::entryTaken, policy_.entry);
    return stateFromEntry(*entry);
}

// The first entry for the session's names decides, even if it does not set the key.
void PolicyUpdate::updateBatchEvents() {
    for (const PropertyList& element : situation_.clients) {
        const auto entry = ClientEntry::of(element);
        if (!entry || !entry->isFor(clientName_, serviceID_)) continue;
        if (const auto batchEvents = entry->batchEvents()) {
            policy_.batchEvents = *batchEvents;
            TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent=%d",
                        policy_.batchEvents ? 1 : 0);
            decided(Decision::batchingSet, &entry->content());
        }
        return;
    }
}

// A session without user info matches no name: the first entry with a URL serves it.
BackendState PolicyUpdate::stateWithoutUserInfo() {
    std::optional<ClientEntry> taken;
    for (const PropertyList& element : situation_.clients) {
        const auto entry = ClientEntry::of(element);
        if (!entry || !updatePostLink(*entry)) continue;
        taken = entry;
        break;
    }
    resetWithEntry(taken);
    policy_.entry = taken ? &taken->content() : nullptr;
    decided(taken ? Decision::servedByFirstLink : Decision::servedWithoutLink, policy_.entry);
    return BackendState::reporting;
}

std::optional<ClientEntry> PolicyUpdate::entryForSession() const {
    for (const PropertyList& element : situation_.clients) {
        const auto entry = ClientEntry::of(element);
        if (!entry) continue;
        const bool isNamed = entry->isFor(clientName_, serviceID_);
        if (isNamed && situation_.frameworkVersion >= entry->enabledSince()) return entry;
        decided(isNamed ? Decision::frameworkTooOld : Decision::namesDiffer, &entry->content());
    }
    return std::nullopt;
}

BackendState PolicyUpdate::stateFromEntry(const ClientEntry& entry) {
    const std::optional<std::string> countryCode = situation_.countryCode();
    if (!updateConsent(entry) || !isCountryAndDeviceAdmitted(entry, countryCode)) {
        return BackendState::disabled;
    }
    const Array* filters = entry.filters();
    if (filters == nullptr) {
        TELVORA_LOG(kLogWarning, "HTTPSPostBackend(updateBackendState): filters are required.");
        decided(Decision::filtersMissing, &entry.content());
        return BackendState::disabled;
    }
    createFiltersFromArray(*filters, policy_.filters);
    updateSamplingThreshold(entry, countryCode);
    const BackendState newState = stateFromSampling(entry);
    resetWithEntry(entry);
    if (entry.hasCustomClientId()) {
        policy_.uuidCustom = std::make_shared<const std::string>(
            situation_.identity.getPersistentIdentifierForCustomClientIDSuffix(clientName_, serviceID_,
                                                                               situation_.user));
    }
    TELVORA_LOG(kLogDebug,
                "HTTPSPostBackend(updateBackendState): %s: client found %s:%s, state=%d, samplingFactor=%f",
                situation_.backend.c_str(), textOrNull(clientName_), textOrNull(serviceID_),
                static_cast<int>(newState), situation_.samplingFactor);
    updatePostLink(entry);
    updateEventLists(entry);
    return newState;
}

bool PolicyUpdate::updateConsent(const ClientEntry& entry) {
    const int32_t overrideDnu = entry.overrideDnu();
    if (overrideDnu == 1) {
        policy_.dnuType = situation_.consent ? 2 : 1;
        decided(Decision::consentOverridden, &entry.content());
        return true;
    }
    policy_.dnuType = 0;
    if (!situation_.consent) {
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): reporting disabled by DNU: %d.",
                    overrideDnu);
    }
    decided(situation_.consent ? Decision::consentGiven : Decision::consentMissing, &entry.content());
    return situation_.consent;
}

bool PolicyUpdate::isCountryAndDeviceAdmitted(const ClientEntry& entry,
                                              const std::optional<std::string>& countryCode) const {
    if (!entry.admitsCountry(countryCode)) {
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): (%s) isn't in country code list %s",
                    textOrNull(countryCode), textOrNull(entry.countries()));
        decided(Decision::countryMissing, &entry.content());
        return false;
    }
    const std::string* families = entry.deviceWhitelist();
    if (!matchStringWithList(splitList(families), situation_.productFamily, true)) {
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): (%s) isn't in device whitelist %s",
                    textOrNull(situation_.productFamily), textOrNull(families));
        decided(Decision::deviceMissing, &entry.content());
        return false;
    }
    const std::string* hardware = entry.deviceBlacklist();
    if (matchStringWithList(splitList(hardware), situation_.hardwareType, false)) {
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): (%s) is in device blacklist %s",
                    textOrNull(situation_.hardwareType), textOrNull(hardware));
        decided(Decision::hardwareExcluded, &entry.content());
        return false;
    }
    return true;
}

void PolicyUpdate::updateSamplingThreshold(const ClientEntry& entry,
                                           const std::optional<std::string>& countryCode) {
    policy_.samplingThreshold = entry.samplingThreshold();
    const Dictionary* ofCountry = countryCode ? entry.thresholdOfCountry(*countryCode) : nullptr;
    if (ofCountry == nullptr) return;
    const std::optional<double> threshold = ofCountry->real("threshold");
    TELVORA_LOG(kLogDebug,
                "HTTPSPostBackend(updateBackendState): sampling threshold for %s changed from %.02f to %.02f",
                countryCode->c_str(), policy_.samplingThreshold.value_or(0), threshold.value_or(0));
    policy_.samplingThreshold = threshold;
    decided(Decision::thresholdOfCountry, ofCountry);
}

BackendState PolicyUpdate::stateFromSampling(const ClientEntry& entry) {
    const auto concluded = [&](Decision decision, BackendState newState) {
        decided(decision, &entry.content());
        return newState;
    };
    const double factor = situation_.samplingFactor;
    if (!policy_.samplingThreshold) return concluded(Decision::thresholdMissing, BackendState::disabled);
    if (factor <= *policy_.samplingThreshold) return concluded(Decision::drawnIn, BackendState::reporting);
    policy_.overrideSampling = entry.overrideSampling();
    if (policy_.overrideSampling && factor > *policy_.overrideSampling) {
        return concluded(Decision::beyondOverride, BackendState::disabled);
    }
    return concluded(Decision::sampledOut, BackendState::sampledOut);
}

void PolicyUpdate::resetWithEntry(const std::optional<ClientEntry>& entry) {
    policy_.eventThreshold = entry ? entry->eventThreshold() : 0;
    TELVORA_LOG(kLogDebug, "resetBackendStateWithClient: event_threshold set to %d", policy_.eventThreshold);
    policy_.extrasOnInternal = entry ? entry->extrasOnInternal() : 0;
    TELVORA_LOG(kLogDebug, "setBackendStateWithClient: extras on internal is set to %d",
                policy_.extrasOnInternal);
}

// True if the link of the entry replaced the previous one.
bool PolicyUpdate::updatePostLink(const ClientEntry& entry) {
    bool replaced = false;
    if (!policy_.useDefaultPostURL || policy_.postURL == nullptr) {
        policy_.useDefaultPostURL = false;
        if (const std::string* url = entry.postURL()) {
            policy_.postURL = url;
            TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updatePostLink): Storebag '%s' for postURL",
                        url->c_str());
            replaced = true;
        }
    }
    if (!policy_.useDefaultRealtimePostURL || policy_.realtimePostURL == nullptr) {
        policy_.useDefaultRealtimePostURL = false;
        if (const std::string* url = entry.realtimePostURL()) {
            policy_.realtimePostURL = url;
            TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updatePostLink): Storebag '%s' for realtimePostURL",
                        url->c_str());
        } else {
            policy_.realtimePostURL = policy_.postURL;
            TELVORA_LOG(kLogDebug,
                        "HTTPSPostBackend(updatePostLink): realtimePostURL defaults to postURL '%s'",
                        textOrNull(policy_.postURL));
        }
    }
    return replaced;
}

void PolicyUpdate::updateEventLists(const ClientEntry& entry) {
    if (const Array* list = entry.eventWhitelist()) {
        policy_.eventWhitelist = list;
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): %s: eventWhitelist=%s",
                    situation_.backend.c_str(), descriptionOf(*list).c_str());
    }
    if (const Array* list = entry.eventBlacklist()) {
        policy_.eventBlacklist = list;
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): %s: eventBlacklist=%s",
                    situation_.backend.c_str(), descriptionOf(*list).c_str());
    }
}

}  // namespace

ReportingPolicy nextPolicy(ReportingPolicy policy, const ReportingSituation& situation) {
    policy.state = PolicyUpdate(policy, situation).run();
    return policy;
}

std::optional<std::string> userInfoText(const Dictionary* userInfo, std::string_view key) {
    const std::string* text = userInfo != nullptr ? userInfo->string(key) : nullptr;
    return text != nullptr ? std::optional(*text) : std::nullopt;
}

}  // namespace telvora
