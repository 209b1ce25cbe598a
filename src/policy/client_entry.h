// SPDX-License-Identifier: Apache-2.0
//
// ClientEntry: one entry of a bag's "clients". All who read an entry read it here, so that the daemon and the
// tool that judges bags can't differ about a value.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "plist/property_list.h"
#include "policy/event_filters.h"

namespace telvora {

// A view, cheap to copy: the entry must outlive it and all that it returns. Values of a type that a key does
// not take count as absent. Thread-safe: no shared state.
class ClientEntry {
  public:
    explicit ClientEntry(const Dictionary& content) : content_(&content) {}
    // Nothing for an element of "clients" that is no dictionary.
    static std::optional<ClientEntry> of(const PropertyList& element);

    const Dictionary& content() const { return *content_; }

    // The names of clients, and the parts of services' names, that the entry is for; none: all.
    StringList clients() const { return splitList(content_->string("client")); }
    StringList services() const { return splitList(content_->string("service")); }
    // Whether it is for a session of these names (nothing: the session has none).
    bool isFor(const std::optional<std::string>& clientName,
               const std::optional<std::string>& serviceID) const;
    // The first framework version that uses the entry: 0.0.0 where it does not say.
    std::array<uint8_t, 3> enabledSince() const;

    // Whether reports are batched; nothing: as the client wishes.
    std::optional<bool> batchEvents() const;
    int32_t overrideDnu() const;
    const std::string* countries() const { return content_->string("locale_whitelist"); }
    // A country that is not known is on every list, but not on an absent one.
    bool admitsCountry(const std::optional<std::string>& countryCode) const;
    const std::string* deviceWhitelist() const { return content_->string("device_whitelist"); }
    const std::string* deviceBlacklist() const { return content_->string("device_blacklist"); }
    const Array* filters() const { return content_->array("filters"); }
    std::optional<double> samplingThreshold() const { return content_->real("sampling_threshold"); }
    // The first element of "per_country_sampling_thresholds" that has the country; null: none.
    const Dictionary* thresholdOfCountry(const std::string& countryCode) const;
    std::optional<double> overrideSampling() const { return content_->real("override_sampling"); }
    bool hasCustomClientId() const { return content_->contains("custom_clientId"); }
    int32_t eventThreshold() const;
    int32_t extrasOnInternal() const;
    const std::string* postURL() const { return content_->string("post_url"); }
    const std::string* realtimePostURL() const { return content_->string("realtime_post_url"); }
    const Array* eventWhitelist() const { return content_->array("event_whitelist"); }
    const Array* eventBlacklist() const { return content_->array("event_blacklist"); }

  private:
    const Dictionary* content_;
};

// Whether a list of categories holds one. Text counts as the integer that it starts with.
bool listHoldsCategory(const Array& list, uint16_t category);

}  // namespace telvora
