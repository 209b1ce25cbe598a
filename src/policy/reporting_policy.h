// SPDX-License-Identifier: Apache-2.0
//
// ReportingPolicy: how a backend treats the reports of its session, as one value. The client and the settings
// of the device give its initial value. HTTPS backends derive the rest from a bag each time the session's
// user info changes; parts that the bag does not set stay unchanged. The daemon acts on it, and tools print
// it.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "plist/property_list.h"
#include "policy/decision_trace.h"
#include "policy/event_filters.h"

namespace telvora {

class DeviceIdentity;

enum class BackendState : int32_t { waitingForUserInfo = 0, disabled = 1, reporting = 2, sampledOut = 3 };

// All pointers and views refer to the bag, or to the initial policy's texts of the user defaults.
struct ReportingPolicy {
    // The last state that the bag gave to the session. The state of the backend also changes with its
    // reports.
    BackendState state = BackendState::waitingForUserInfo;
    Decision decision = Decision::userInfoMissing;  // the reason of `state`
    const Dictionary* entry = nullptr;              // the entry of "clients" that applied, or null
    bool batchEvents = false;
    int32_t eventThreshold = 49;  // a batch is flushed above this number of events of a category
    std::optional<double> samplingThreshold;
    std::optional<double> overrideSampling;
    std::vector<EventFilter> filters;
    const Array* eventWhitelist = nullptr;  // null: all categories
    const Array* eventBlacklist = nullptr;  // null: no category
    int32_t dnuType = 0;  // 0: consent respected; overridden: 1 without consent, 2 with consent
    int32_t extrasOnInternal = 0;
    std::shared_ptr<const std::string> uuidCustom;  // null: none
    const std::string* postURL = nullptr;
    const std::string* realtimePostURL = nullptr;
    bool useDefaultPostURL = false;          // the user default sets it, not the bag
    bool useDefaultRealtimePostURL = false;  // the user default sets it, not the bag
};

// A session and its device, to which the entries of a bag are applied. All references live for the call.
struct ReportingSituation {
    const DeviceIdentity& identity;
    const std::function<std::optional<std::string>()>& countryCode;  // of the current locale
    DecisionTrace* trace;                                            // null: no trace
    const std::string& backend;                                      // name, for the log
    const Array& clients;                                            // of the bag, which outlives the policy
    const Dictionary* userInfo;                                      // null: absent
    bool requireUserInfo;
    std::array<uint8_t, 3> frameworkVersion;
    double samplingFactor;  // the backend's draw, from 0 to 1
    bool consent;           // the user shares diagnostics
    const std::optional<std::string>& productFamily;
    const std::optional<std::string>& hardwareType;
    std::optional<uid_t> user = std::nullopt;  // of the client; a new identifier counts against its bound
};

// The policy that follows `policy` in this situation. Logs its steps at level 7.
ReportingPolicy nextPolicy(ReportingPolicy policy, const ReportingSituation& situation);

// The text under a key of the user info; std::nullopt if absent.
std::optional<std::string> userInfoText(const Dictionary* userInfo, std::string_view key);

}  // namespace telvora
