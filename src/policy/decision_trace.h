// SPDX-License-Identifier: Apache-2.0
//
// Why a backend is in its state and what became of an event's keys, told step by step to who asks: the
// authors of bags. The daemon asks nothing, and pays one look at a null pointer per step.
#pragma once

#include <span>
#include <string>

#include "plist/property_list.h"

namespace telvora {

struct EventFilter;
struct ReportingPolicy;

// The steps of updateState(), in the order in which they can be taken. A step that ends the walk says with
// which state.
enum class Decision {
    kept,                // a logged message has gone out: the state stays
    batchingSet,         // by the first entry of the session's names
    servedByFirstLink,   // reporting: no user info is required, the entry is the first that has a URL
    servedWithoutLink,   // reporting: no user info is required, and no entry has a URL or may set it
    userInfoMissing,     // waiting
    namesDiffer,         // the entry is for other clients or services
    frameworkTooOld,     // the entry is for later frameworks
    entryTaken,          // the entry decides
    noEntry,             // disabled: none is for this session
    consentGiven,        // the user shares diagnostics
    consentOverridden,   // the entry does not care whether
    consentMissing,      // disabled
    countryMissing,      // disabled: not in the entry's list
    deviceMissing,       // disabled: likewise
    hardwareExcluded,    // disabled
    filtersMissing,      // disabled
    thresholdOfCountry,  // the subject is the country's element
    thresholdMissing,    // disabled: neither the entry nor the country's element has one
    drawnIn,             // reporting: the factor is within the threshold
    sampledOut,          // sampled out
    beyondOverride,      // disabled: beyond the second threshold too
};

// Called on the thread that calls the backend. All references live for the call, but a subject lives as long
// as the bag.
class DecisionTrace {
  public:
    virtual ~DecisionTrace() = default;

    // `subject`: the entry of "clients" (or what the decision names) in the bag; null where there is none.
    // `soFar`: the policy with all that is decided up to this step.
    virtual void decided(const std::string& backend, Decision decision, const Dictionary* subject,
                         const ReportingPolicy& soFar) = 0;
    // A filter of the bag acted on a key of an event.
    virtual void filtered(const std::string& backend, const std::string& key, const EventFilter& filter) = 0;
    // These events, as they stand, are the content of the next post.
    virtual void leaving(const std::string& backend, std::span<const Dictionary> events) = 0;
};

}  // namespace telvora
