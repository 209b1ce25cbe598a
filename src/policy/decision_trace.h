// SPDX-License-Identifier: Apache-2.0
//
// The reasons of a backend's decisions about its state, and a trace of them and of the keys of events, for
// authors of bags. The daemon keeps the last reason. It has no trace, and checks one null pointer per step.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "plist/property_list.h"

namespace telvora {

struct EventFilter;
struct ReportingPolicy;

// The steps of updateState(), in their order. The comments name the state that a final step sets.
enum class Decision : uint8_t {
    kept,                // a logged message was sent: the state stays
    batchingSet,         // set by the first entry for the session's names
    servedByFirstLink,   // reporting: user info is not required, the entry is the first one with a URL
    servedWithoutLink,   // reporting: user info is not required, and no entry has a URL or may set it
    userInfoMissing,     // waiting
    namesDiffer,         // the entry applies to other clients or services
    frameworkTooOld,     // the entry applies to later frameworks
    entryTaken,          // the entry applies
    noEntry,             // disabled: no entry applies
    consentGiven,        // the user shares diagnostics
    consentOverridden,   // the entry overrides the user's choice
    consentMissing,      // disabled
    countryMissing,      // disabled: not in the entry's list
    deviceMissing,       // disabled: not in the entry's list
    hardwareExcluded,    // disabled
    filtersMissing,      // disabled
    thresholdOfCountry,  // the subject is the element of the country
    thresholdMissing,    // disabled: neither the entry nor the element of the country has one
    drawnIn,             // reporting: the draw is within the threshold
    sampledOut,          // sampled out
    beyondOverride,      // disabled: beyond the second threshold, too
    // Reasons of states that no entry decided.
    unconditional,   // reporting: the backend has no conditions
    serverFailed,    // disabled: the server answered with a 5xx status
    parentFollowed,  // the state of the parent session's backend
    promoted,        // reporting: a report promoted the session
};
inline constexpr size_t kDecisions = static_cast<size_t>(Decision::promoted) + 1;

// Name of a decision on the wire, as it is spelled above.
const char* nameOf(Decision decision);

// Called on the thread that calls the backend. All references live for the call, except that a subject lives
// as long as the bag.
class DecisionTrace {
  public:
    virtual ~DecisionTrace() = default;

    // `subject`: the entry of "clients" (or the element that the decision names) in the bag; null if there is
    // no such entry. `soFar`: the policy after this step.
    virtual void decided(const std::string& backend, Decision decision, const Dictionary* subject,
                         const ReportingPolicy& soFar) = 0;
    // Called when a filter of the bag acts on a key of an event.
    virtual void filtered(const std::string& backend, const std::string& key, const EventFilter& filter) = 0;
    // Called with the events of the next post, in their final form.
    virtual void leaving(const std::string& backend, std::span<const Dictionary> events) = 0;
};

}  // namespace telvora
