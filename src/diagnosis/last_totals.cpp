// SPDX-License-Identifier: Apache-2.0
#include "diagnosis/last_totals.h"

#include <algorithm>

#include "plist/property_list_format.h"
#include "protocol/status_keys.h"
#include "util/atomic_file.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr const char* kFileName = "lastTotals.plist";

bool hasReports(const Dictionary& totals) {
    return std::any_of(totals.begin(), totals.end(), [](const auto& entry) {
        const auto* account = entry.value.template getIf<Dictionary>();
        return account != nullptr && account->integer(status::kAccepted).value_or(0) > 0;
    });
}

}  // namespace

Dictionary readLastTotals(const std::filesystem::path& stateDirectory) {
    const auto content = readPropertyListFile(stateDirectory / kFileName);
    const auto* last = content ? content->getIf<Dictionary>() : nullptr;
    return last != nullptr && last->dictionary(status::kTotals) != nullptr ? *last : Dictionary();
}

void keepLastTotals(const std::filesystem::path& stateDirectory, Dictionary totals, double endTime) {
    if (!hasReports(totals)) return;
    const Dictionary last{{status::kEndTime, Date{endTime}}, {status::kTotals, std::move(totals)}};
    const auto document = serializePropertyList(last, PropertyListFormat::xml);
    const auto kept =
        document ? replaceFile(stateDirectory / kFileName, *document) : tl::make_unexpected(document.error());
    if (!kept) TELVORA_LOG(kLogWarning, "main: can't keep the last totals: %s", kept.error().c_str());
}

}  // namespace telvora
