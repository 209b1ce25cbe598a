// SPDX-License-Identifier: Apache-2.0
//
// The state of an HTTPSPostBackend from the bag: which client entry is the session's, and what it says.
#include <algorithm>
#include <array>

#include "backends/absent_text.h"
#include "backends/bag_values.h"
#include "backends/https_post_backend.h"
#include "telvora/keys.h"
#include "util/log.h"

namespace telvora {

namespace {

bool holdsString(const Array& array, const std::string& text) {
    return std::any_of(array.begin(), array.end(), [&text](const PropertyList& element) {
        const auto* string = element.getIf<std::string>();
        return string != nullptr && *string == text;
    });
}

std::string descriptionOf(const Array& list) {
    std::string text;
    for (const PropertyList& entry : list) {
        text += text.empty() ? "" : ", ";
        text += entry.isNumber() ? std::to_string(*entry.integerValue()) : entry.shapeDescription();
    }
    return "(" + text + ")";
}

}  // namespace

BackendState HTTPSPostBackend::updateBackendState() {
    const std::optional<std::string> clientName = userInfoString(kTelvoraUserInfoClientName);
    const std::optional<std::string> serviceID = userInfoString(kTelvoraUserInfoServiceName);
    updateBatchEvents(clientName, serviceID);
    if (!requireUserInfo_) return stateWithoutUserInfo();
    if (userInfoDict_ == nullptr) {
        decided(Decision::userInfoMissing);
        return BackendState::waitingForUserInfo;
    }
    const Dictionary* client = clientForSession(clientName, serviceID);
    decided(client != nullptr ? Decision::entryTaken : Decision::noEntry, client);
    return client != nullptr ? stateFromClient(*client, clientName, serviceID) : BackendState::disabled;
}

// The first entry of the session's name decides, whether it has a say in the matter or not.
void HTTPSPostBackend::updateBatchEvents(const std::optional<std::string>& clientName,
                                         const std::optional<std::string>& serviceID) {
    for (const PropertyList& element : clients_) {
        const auto* client = element.getIf<Dictionary>();
        if (client == nullptr || !matchClientNameAndServiceID(*client, clientName, serviceID)) continue;
        const PropertyList* expedite = client->find("expedite");
        if (expedite != nullptr && expedite->isNumber()) {
            batchEvents_ = !expedite->boolValue();
            TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): Store bag override  _batchEvent=%d",
                        batchEvents_ ? 1 : 0);
            decided(Decision::batchingSet, client);
        }
        return;
    }
}

// A session without user info matches no name: the first entry that has a URL serves it.
BackendState HTTPSPostBackend::stateWithoutUserInfo() {
    const auto updates = [this](const PropertyList& element) {
        const auto* client = element.getIf<Dictionary>();
        return client != nullptr && updatePostLink(*client);
    };
    const auto found = std::find_if(clients_.begin(), clients_.end(), updates);
    const Dictionary* client = found != clients_.end() ? found->getIf<Dictionary>() : nullptr;
    resetBackendStateWithClient(client);
    decided(client != nullptr ? Decision::servedByFirstLink : Decision::servedWithoutLink, client);
    return BackendState::reporting;
}

const Dictionary* HTTPSPostBackend::clientForSession(const std::optional<std::string>& clientName,
                                                     const std::optional<std::string>& serviceID) const {
    for (const PropertyList& element : clients_) {
        const auto* client = element.getIf<Dictionary>();
        if (client == nullptr) continue;
        const bool isNamed = matchClientNameAndServiceID(*client, clientName, serviceID);
        if (isNamed && isFrameworkEnabledForClient(*client)) return client;
        decided(isNamed ? Decision::frameworkTooOld : Decision::namesDiffer, client);
    }
    return nullptr;
}

BackendState HTTPSPostBackend::stateFromClient(const Dictionary& client,
                                               const std::optional<std::string>& clientName,
                                               const std::optional<std::string>& serviceID) {
    const std::optional<std::string> countryCode = services_.countryCode();
    if (!updateConsent(client) || !isCountryAndDeviceAdmitted(client, countryCode)) {
        return BackendState::disabled;
    }
    const Array* filters = client.array("filters");
    if (filters == nullptr) {
        TELVORA_LOG(kLogWarning, "HTTPSPostBackend(updateBackendState): filters are required.");
        decided(Decision::filtersMissing, &client);
        return BackendState::disabled;
    }
    createFiltersFromArray(*filters, filters_);
    updateSamplingThreshold(client, countryCode);
    const BackendState newState = stateFromSampling(client);
    resetBackendStateWithClient(&client);
    if (client.contains("custom_clientId")) {
        uuidCustom_ =
            services_.identity.getPersistentIdentifierForCustomClientIDSuffix(clientName, serviceID);
    }
    TELVORA_LOG(kLogDebug,
                "HTTPSPostBackend(updateBackendState): %s: client found %s:%s, state=%d, samplingFactor=%f",
                name_.c_str(), textOrNull(clientName), textOrNull(serviceID), static_cast<int>(newState),
                samplingFactor_);
    updatePostLink(client);
    updateEventLists(client);
    return newState;
}

bool HTTPSPostBackend::updateConsent(const Dictionary& client) {
    const int32_t overrideDnu = bagInteger(client, "override_dnu").value_or(0);
    if (overrideDnu == 1) {
        dnuType_ = dnuEnabled_ ? 2 : 1;
        decided(Decision::consentOverridden, &client);
        return true;
    }
    dnuType_ = 0;
    if (!dnuEnabled_) {
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): reporting disabled by DNU: %d.",
                    overrideDnu);
    }
    decided(dnuEnabled_ ? Decision::consentGiven : Decision::consentMissing, &client);
    return dnuEnabled_;
}

bool HTTPSPostBackend::isCountryAndDeviceAdmitted(const Dictionary& client,
                                                  const std::optional<std::string>& countryCode) const {
    const std::string* countries = client.string("locale_whitelist");
    // Checked like a black list, so that an entry without the list is not used at all.
    if (!matchStringWithList(splitList(countries), countryCode, false)) {
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): (%s) isn't in country code list %s",
                    textOrNull(countryCode), textOrNull(countries));
        decided(Decision::countryMissing, &client);
        return false;
    }
    const std::string* families = client.string("device_whitelist");
    if (!matchStringWithList(splitList(families), productFamily_, true)) {
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): (%s) isn't in device whitelist %s",
                    textOrNull(productFamily_), textOrNull(families));
        decided(Decision::deviceMissing, &client);
        return false;
    }
    const std::string* hardware = client.string("device_blacklist");
    if (matchStringWithList(splitList(hardware), hardwareType_, false)) {
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): (%s) is in device blacklist %s",
                    textOrNull(hardwareType_), textOrNull(hardware));
        decided(Decision::hardwareExcluded, &client);
        return false;
    }
    return true;
}

void HTTPSPostBackend::updateSamplingThreshold(const Dictionary& client,
                                               const std::optional<std::string>& countryCode) {
    const std::optional<double> ofAll = client.real("sampling_threshold");
    setSamplingThreshold(ofAll);
    const Array* perCountry = client.array("per_country_sampling_thresholds");
    if (perCountry == nullptr || !countryCode) return;
    for (const PropertyList& element : *perCountry) {
        const auto* entry = element.getIf<Dictionary>();
        const Array* countries = entry != nullptr ? entry->array("country") : nullptr;
        if (countries == nullptr || !holdsString(*countries, *countryCode)) continue;
        const std::optional<double> threshold = entry->real("threshold");
        TELVORA_LOG(kLogDebug,
                    "HTTPSPostBackend(updateBackendState): sampling threshold for %s changed from %.02f to "
                    "%.02f",
                    countryCode->c_str(), ofAll.value_or(0), threshold.value_or(0));
        setSamplingThreshold(threshold);
        decided(Decision::thresholdOfCountry, entry);
        return;
    }
}

BackendState HTTPSPostBackend::stateFromSampling(const Dictionary& client) {
    const auto concluded = [&](Decision decision, BackendState newState) {
        decided(decision, &client);
        return newState;
    };
    const std::optional<double> threshold = samplingThreshold();
    if (!threshold) return concluded(Decision::thresholdMissing, BackendState::disabled);
    if (samplingFactor_ <= *threshold) return concluded(Decision::drawnIn, BackendState::reporting);
    overrideSampling_ = client.real("override_sampling");
    if (overrideSampling_ && samplingFactor_ > *overrideSampling_) {
        return concluded(Decision::beyondOverride, BackendState::disabled);
    }
    return concluded(Decision::sampledOut, BackendState::sampledOut);
}

void HTTPSPostBackend::updateEventLists(const Dictionary& client) {
    if (const Array* list = client.array("event_whitelist")) {
        eventWhitelist_ = *list;
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): %s: eventWhitelist=%s", name_.c_str(),
                    descriptionOf(*list).c_str());
    }
    if (const Array* list = client.array("event_blacklist")) {
        eventBlacklist_ = *list;
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updateBackendState): %s: eventBlacklist=%s", name_.c_str(),
                    descriptionOf(*list).c_str());
    }
}

bool HTTPSPostBackend::updatePostLink(const Dictionary& client) {
    bool replaced = false;
    if (!useDefaultPostURL_ || !postURL_) {
        useDefaultPostURL_ = false;
        if (const std::string* url = client.string("post_url")) {
            postURL_ = *url;
            TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updatePostLink): Storebag '%s' for postURL",
                        url->c_str());
            replaced = true;
        }
    }
    if (!useDefaultRealtimePostURL_ || !realtimePostURL_) {
        useDefaultRealtimePostURL_ = false;
        if (const std::string* url = client.string("realtime_post_url")) {
            realtimePostURL_ = *url;
            TELVORA_LOG(kLogDebug, "HTTPSPostBackend(updatePostLink): Storebag '%s' for realtimePostURL",
                        url->c_str());
        } else {
            realtimePostURL_ = postURL_;
            TELVORA_LOG(kLogDebug,
                        "HTTPSPostBackend(updatePostLink): realtimePostURL defaults to postURL '%s'",
                        textOrNull(postURL_));
        }
    }
    return replaced;
}

bool HTTPSPostBackend::matchClientNameAndServiceID(const Dictionary& client,
                                                   const std::optional<std::string>& clientName,
                                                   const std::optional<std::string>& serviceID) const {
    return matchExactStringWithList(splitList(client.string("client")), clientName, true) &&
           matchStringWithList(splitList(client.string("service")), serviceID, true);
}

bool HTTPSPostBackend::isFrameworkEnabledForClient(const Dictionary& client) const {
    const std::string* enabledSince = client.string("enabledSince");
    const std::array<uint8_t, 3> own = {selfVersionMajor_, selfVersionMiddle_, selfVersionMinor_};
    return enabledSince == nullptr || own >= versionComponents(*enabledSince);
}

void HTTPSPostBackend::resetBackendStateWithClient(const Dictionary* client) {
    eventThreshold_ = client != nullptr ? bagInteger(*client, "event_threshold").value_or(0) : 0;
    TELVORA_LOG(kLogDebug, "resetBackendStateWithClient: event_threshold set to %d", eventThreshold_);
    extrasOnInternal_ = client != nullptr ? bagInteger(*client, "extras_on_internal").value_or(0) : 0;
    TELVORA_LOG(kLogDebug, "setBackendStateWithClient: extras on internal is set to %d", extrasOnInternal_);
}

}  // namespace telvora
