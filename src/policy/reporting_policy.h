// SPDX-License-Identifier: Apache-2.0
//
// ReportingPolicy: what a backend does with the reports of its session, as one value. It starts with what the
// client and the device's settings say; HTTPS backends take the rest from a bag, each time that the session's
// user info changes, and leave what the bag does not decide as it was. The daemon acts on it, and tools print
// it.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "plist/property_list.h"
#include "policy/event_filters.h"

namespace telvora {

class DecisionTrace;
class DeviceIdentity;

enum class BackendState : int32_t { waitingForUserInfo = 0, disabled = 1, reporting = 2, sampledOut = 3 };

// All pointers and views refer to the bag.
struct ReportingPolicy {
    // What the bag made of the session last. The backend's own state changes with its reports, too.
    BackendState state = BackendState::waitingForUserInfo;
    const Dictionary* entry = nullptr;  // the entry of "clients" that decided; null: none did
    bool batchEvents = false;
    int32_t eventThreshold = 49;  // so many reports of a category, and one, make a batch
    std::optional<double> samplingThreshold;
    std::optional<double> overrideSampling;
    std::vector<EventFilter> filters;
    const Array* eventWhitelist = nullptr;  // null: every category
    const Array* eventBlacklist = nullptr;  // null: no category
    int32_t dnuType = 0;  // 0: consent respected; overridden: 1 the user did not consent, 2 did
    int32_t extrasOnInternal = 0;
    std::optional<std::string> uuidCustom;
    std::optional<std::string> postURL;
    std::optional<std::string> realtimePostURL;
    bool useDefaultPostURL = false;          // the user default has the say, not the bag
    bool useDefaultRealtimePostURL = false;  // likewise
};

// A session on a device, as the entries of a bag are applied to it. All references live for the call.
struct ReportingSituation {
    const DeviceIdentity& identity;
    const std::function<std::optional<std::string>()>& countryCode;  // of the current locale
    DecisionTrace* trace;                                            // null: the steps are not traced
    const std::string& backend;                                      // its name, for the log
    const Array& clients;                                            // of the bag, which outlives the policy
    const Dictionary* userInfo;                                      // null: none
    bool requireUserInfo;
    std::array<uint8_t, 3> frameworkVersion;
    double samplingFactor;  // the backend's draw, from 0 to 1
    bool consent;           // the user shares diagnostics
    const std::optional<std::string>& productFamily;
    const std::optional<std::string>& hardwareType;
};

// The policy after `policy` in this situation. Logs its steps at level 7.
ReportingPolicy nextPolicy(ReportingPolicy policy, const ReportingSituation& situation);

// The text under a key of the user info, or nothing.
std::optional<std::string> userInfoText(const Dictionary* userInfo, std::string_view key);

}  // namespace telvora
