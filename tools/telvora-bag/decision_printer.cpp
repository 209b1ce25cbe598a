// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/decision_printer.h"

#include <algorithm>

#include "policy/reporting_policy.h"
#include "telvora-bag/texts.h"

namespace telvora::bag {

namespace {

std::string text(const std::optional<std::string>& value) {
    return value ? inQuotes(*value) : "(unknown)";
}

}  // namespace

void DecisionPrinter::decided(const std::string& /*backend*/, Decision decision, const Dictionary* subject,
                              const ReportingPolicy& soFar) {
    out_ << "  " << lineOf(decision, subject, soFar) << '\n';
}

std::string DecisionPrinter::lineOf(Decision decision, const Dictionary* subject,
                                    const ReportingPolicy& soFar) const {
    const auto entry =
        std::find_if(clients_->begin(), clients_->end(), [subject](const PropertyList& element) {
            return subject != nullptr && element.getIf<Dictionary>() == subject;
        });
    const std::string place =
        entry != clients_->end() ? "clients[" + std::to_string(entry - clients_->begin()) + "]: " : "";
    return place + reasonFor(decision, subject != nullptr ? *subject : Dictionary(), soFar);
}

std::string DecisionPrinter::session() const {
    return "client " + text(scenario_.clientName) + " and service " + text(scenario_.serviceName);
}

// A key of a dictionary, with its value.
std::string DecisionPrinter::list(const Dictionary& subject, std::string_view key) const {
    const std::string* value = subject.string(key);
    return std::string(key) + (value != nullptr ? " " + inQuotes(*value) : " (absent)");
}

std::string DecisionPrinter::reasonFor(Decision decision, const Dictionary& subject,
                                       const ReportingPolicy& soFar) const {
    const std::string draw = "the draw " + numberText(scenario_.draw);
    const std::string threshold = soFar.samplingThreshold ? numberText(*soFar.samplingThreshold) : "(none)";
    switch (decision) {
        case Decision::kept:
            return "a message has been posted with consent: the state stays";
        case Decision::batchingSet:
            return std::string("expedite: reports are ") + (soFar.batchEvents ? "batched" : "posted at once");
        case Decision::servedByFirstLink:
            return "serves the session, which requires no user info: it is the first entry with a post_url. "
                   "Of the rest of it only realtime_post_url, event_threshold and extras_on_internal count";
        case Decision::servedWithoutLink:
            return "the session requires no user info, and no entry has a post_url";
        case Decision::userInfoMissing:
            return "the session requires user info and has none: it has no entry, no filters and no lists "
                   "until then";
        case Decision::namesDiffer:
            return "skipped: it applies to " + list(subject, "client") + ", " + list(subject, "service");
        case Decision::frameworkTooOld:
            return "skipped: " + list(subject, "enabledSince") + " is later than " + scenario_.framework;
        case Decision::entryTaken:
            return "taken: the first entry for " + session();
        case Decision::noEntry:
            return "no entry applies to " + session();
        case Decision::consentGiven:
            return "the user shares diagnostics";
        case Decision::consentOverridden:
            return "override_dnu: it does not matter whether the user shares diagnostics";
        case Decision::consentMissing:
            return "the user does not share diagnostics, and override_dnu is not 1";
        case Decision::countryMissing:
            return "country " + text(scenario_.country) + " is not in " + list(subject, "locale_whitelist");
        case Decision::deviceMissing:
            return "device " + text(identity_->deviceName()) + " is not in " +
                   list(subject, "device_whitelist");
        case Decision::hardwareExcluded:
            return "product type " + text(identity_->productType()) + " is in " +
                   list(subject, "device_blacklist");
        case Decision::filtersMissing:
            return "filters are absent, and required";
        case Decision::thresholdOfCountry:
            return "per_country_sampling_thresholds has " + threshold + " for " + text(scenario_.country);
        case Decision::thresholdMissing:
            return "there is no sampling threshold";
        case Decision::drawnIn:
            return draw + " is not above the sampling threshold " + threshold;
        case Decision::sampledOut:
            return draw + " is above the sampling threshold " + threshold;
        case Decision::beyondOverride:
            return draw + " is above the sampling threshold " + threshold + " and above override_sampling " +
                   numberText(soFar.overrideSampling.value_or(0));
        case Decision::unconditional:
        case Decision::serverFailed:
        case Decision::parentFollowed:
        case Decision::promoted:
            break;  // later changes of a state
    }
    return "";
}

}  // namespace telvora::bag
