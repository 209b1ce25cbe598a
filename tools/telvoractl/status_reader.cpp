// SPDX-License-Identifier: Apache-2.0
#include "status_reader.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "client/status_query.h"
#include "diagnosis/last_totals.h"
#include "output.h"
#include "protocol/status_keys.h"
#include "session_options.h"
#include "util/utf8.h"

namespace telvora::ctl {

tl::expected<Dictionary, Failure> awaitStatus(const CommonOptions& common) {
    tl::expected<Dictionary, BusQueryFailure> status;
    awaitDaemon(common, [&] {
        status = queryStatus(kGetStatus, statusSocketBeside(common.socket()));
        return status || status.error().kind != BusQueryFailure::Kind::kUnreachable;
    });
    return status ? tl::expected<Dictionary, Failure>(std::move(*status))
                  : tl::unexpected(failureOf(status.error()));
}

const Dictionary& dictionaryIn(const Dictionary& parent, std::string_view key) {
    static const Dictionary kNone;
    const Dictionary* found = parent.dictionary(key);
    return found != nullptr ? *found : kNone;
}

std::vector<Dictionary> entriesIn(const Dictionary& parent, std::string_view key) {
    std::vector<Dictionary> entries;
    const Array* array = parent.array(key);
    for (const PropertyList& element : array != nullptr ? *array : Array()) {
        if (const auto* entry = element.getIf<Dictionary>()) entries.push_back(*entry);
    }
    return entries;
}

std::string text(const Dictionary& values, std::string_view key) {
    const PropertyList* value = values.find(key);
    return value != nullptr ? escapeControlCharacters(textOf(*value)) : "-";
}

std::string durationText(double seconds) {
    const auto rounded = std::llround(seconds);
    if (rounded < 120) return std::to_string(rounded) + " s";
    if (rounded < 7200) return std::to_string(rounded / 60) + " min";
    return std::to_string(rounded / 3600) + " h";
}

std::string ageText(const Dictionary& values, std::string_view key) {
    const PropertyList* value = values.find(key);
    const auto* date = value != nullptr ? value->getIf<Date>() : nullptr;
    if (date == nullptr) return "-";
    return durationText(std::max(static_cast<double>(time(nullptr)) - date->seconds, 0.0)) + " ago";
}

Dictionary sumsOfAllRuns(const Dictionary& status) {
    const Dictionary& earlier = dictionaryIn(dictionaryIn(status, status::kBefore), status::kAllRuns);
    Dictionary clientTypes = dictionaryIn(earlier, status::kClientTypes);
    addNumbers(clientTypes, dictionaryIn(status, status::kClientTypes));
    const PropertyList* start = dictionaryIn(status, status::kDaemon).find(status::kStartTime);
    const PropertyList* since = earlier.find(status::kSince);
    return {{status::kSince, since != nullptr   ? *since
                             : start != nullptr ? *start
                                                : PropertyList()},
            {status::kClientTypes, std::move(clientTypes)}};
}

std::string outcomeText(const Dictionary& outcome) {
    return text(outcome, outcome.contains(status::kHttpStatus) ? status::kHttpStatus : status::kReason);
}

std::string holdText(const Dictionary& status) {
    const Dictionary& link = dictionaryIn(status, status::kLink);
    std::string reasons = link.boolean(status::kMetered) ? "the link is metered" : "";
    if (!link.boolean(status::kBattery)) return reasons;
    return reasons + (reasons.empty() ? "" : " and ") + "the device runs on battery";
}

}  // namespace telvora::ctl
