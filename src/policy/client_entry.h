// SPDX-License-Identifier: Apache-2.0
//
// ClientEntry: one entry of a bag's "clients". The daemon and the tools read entries through this class
// alone, so that they agree about every value.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "plist/property_list.h"
#include "policy/event_filters.h"

namespace telvora {

// A view, cheap to copy: the entry must outlive it and all results. Values of a type that a key does not take
// count as absent. Thread-safe: no shared state.
class ClientEntry {
  public:
    explicit ClientEntry(const Dictionary& content) : content_(&content) {}
    // std::nullopt for an element of "clients" that is no dictionary.
    static std::optional<ClientEntry> of(const PropertyList& element);

    const Dictionary& content() const { return *content_; }

    // The client names and the parts of service names that the entry applies to; empty: all.
    StringList clients() const { return splitList(content_->string("client")); }
    StringList services() const { return splitList(content_->string("service")); }
    // Whether it applies to a session of these names (std::nullopt: the session has no name).
    bool isFor(const std::optional<std::string>& clientName,
               const std::optional<std::string>& serviceID) const;
    // The first framework version that the entry applies to; 0.0.0 if not set.
    std::array<uint8_t, 3> enabledSince() const;

    // Whether reports are batched; std::nullopt: the client decides.
    std::optional<bool> batchEvents() const;
    int32_t overrideDnu() const;
    const std::string* countries() const { return content_->string("locale_whitelist"); }
    // Whether the country is in the list. An unknown country is in every list, but no country is in an absent
    // one.
    bool admitsCountry(const std::optional<std::string>& countryCode) const;
    const std::string* deviceWhitelist() const { return content_->string("device_whitelist"); }
    const std::string* deviceBlacklist() const { return content_->string("device_blacklist"); }
    const Array* filters() const { return content_->array("filters"); }
    std::optional<double> samplingThreshold() const { return content_->real("sampling_threshold"); }
    // The first element of "per_country_sampling_thresholds" with that country, or null.
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

// Whether a list of categories contains the category. Text counts as its leading integer.
bool listHoldsCategory(const Array& list, uint16_t category);

}  // namespace telvora
