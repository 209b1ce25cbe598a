// SPDX-License-Identifier: Apache-2.0
#include "policy/decision_trace.h"

#include <array>

namespace telvora {

const char* nameOf(Decision decision) {
    static constexpr std::array<const char*, kDecisions> kNames = {"kept",
                                                                   "batchingSet",
                                                                   "servedByFirstLink",
                                                                   "servedWithoutLink",
                                                                   "userInfoMissing",
                                                                   "namesDiffer",
                                                                   "frameworkTooOld",
                                                                   "entryTaken",
                                                                   "noEntry",
                                                                   "consentGiven",
                                                                   "consentOverridden",
                                                                   "consentMissing",
                                                                   "countryMissing",
                                                                   "deviceMissing",
                                                                   "hardwareExcluded",
                                                                   "filtersMissing",
                                                                   "thresholdOfCountry",
                                                                   "thresholdMissing",
                                                                   "drawnIn",
                                                                   "sampledOut",
                                                                   "beyondOverride",
                                                                   "unconditional",
                                                                   "serverFailed",
                                                                   "parentFollowed",
                                                                   "promoted"};
    return kNames[static_cast<size_t>(decision)];
}

}  // namespace telvora
