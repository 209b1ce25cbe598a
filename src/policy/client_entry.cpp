// SPDX-License-Identifier: Apache-2.0
#include "policy/client_entry.h"

#include <algorithm>

#include "config/client_framework.h"
#include "policy/bag_values.h"

namespace telvora {

namespace {

bool holdsString(const Array& array, const std::string& text) {
    return std::any_of(array.begin(), array.end(), [&text](const PropertyList& element) {
        const auto* string = element.getIf<std::string>();
        return string != nullptr && *string == text;
    });
}

}  // namespace

std::optional<ClientEntry> ClientEntry::of(const PropertyList& element) {
    const auto* content = element.getIf<Dictionary>();
    return content != nullptr ? std::optional(ClientEntry(*content)) : std::nullopt;
}

bool ClientEntry::isFor(const std::optional<std::string>& clientName,
                        const std::optional<std::string>& serviceID) const {
    return matchExactStringWithList(clients(), clientName, true) &&
           matchStringWithList(services(), serviceID, true);
}

std::array<uint8_t, 3> ClientEntry::enabledSince() const {
    const std::string* version = content_->string("enabledSince");
    return versionComponents(version != nullptr ? *version : "");
}

std::optional<bool> ClientEntry::batchEvents() const {
    const PropertyList* expedite = content_->find("expedite");
    if (expedite == nullptr || !expedite->isNumber()) return std::nullopt;
    return !expedite->boolValue();
}

int32_t ClientEntry::overrideDnu() const {
    return bagInteger(*content_, "override_dnu").value_or(0);
}

// Checked like a black list, so that an entry without the list admits no session.
bool ClientEntry::admitsCountry(const std::optional<std::string>& countryCode) const {
    return matchStringWithList(splitList(countries()), countryCode, false);
}

const Dictionary* ClientEntry::thresholdOfCountry(const std::string& countryCode) const {
    const Array* elements = content_->array("per_country_sampling_thresholds");
    if (elements == nullptr) return nullptr;
    for (const PropertyList& element : *elements) {
        const auto* threshold = element.getIf<Dictionary>();
        const Array* countries = threshold != nullptr ? threshold->array("country") : nullptr;
        if (countries != nullptr && holdsString(*countries, countryCode)) return threshold;
    }
    return nullptr;
}

int32_t ClientEntry::eventThreshold() const {
    return bagInteger(*content_, "event_threshold").value_or(0);
}

int32_t ClientEntry::extrasOnInternal() const {
    return bagInteger(*content_, "extras_on_internal").value_or(0);
}

bool listHoldsCategory(const Array& list, uint16_t category) {
    return std::any_of(list.begin(), list.end(), [category](const PropertyList& entry) {
        return entry.integerValue() == int64_t{category};
    });
}

}  // namespace telvora
