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

// The account, of which nothing is under way any more.
Dictionary settled(const std::string& name, Dictionary account) {
    const int64_t underWay =
        account.integer(status::kHeld).value_or(0) + account.integer(status::kInFlight).value_or(0);
    account.erase(status::kHeld);
    account.erase(status::kInFlight);
    if (underWay == 0) return account;
    if (name == status::kOutbox) {
        account.set(status::kAccepted, account.integer(status::kAccepted).value_or(0) - underWay);
    } else {
        addNumbers(account, {{status::kLost, Dictionary{{"daemonEnded", underWay}}}});
    }
    return account;
}

Dictionary settled(const Dictionary& clientTypes) {
    Dictionary result;
    for (const auto& [type, value] : clientTypes) {
        const auto* accounts = value.getIf<Dictionary>();
        Dictionary ofType;
        for (const auto& [name, account] : accounts != nullptr ? *accounts : Dictionary())
            if (const auto* found = account.getIf<Dictionary>()) ofType.set(name, settled(name, *found));
        result.set(type, std::move(ofType));
    }
    return result;
}

}  // namespace

void addNumbers(Dictionary& sums, const Dictionary& more) {
    for (const auto& [key, value] : more) {
        if (const auto* inner = value.getIf<Dictionary>()) {
            const Dictionary* known = sums.dictionary(key);
            Dictionary sum = known != nullptr ? *known : Dictionary();
            addNumbers(sum, *inner);
            sums.set(key, std::move(sum));
        } else {
            const auto number = static_cast<uint64_t>(value.integerValue().value_or(0));
            sums.set(key, static_cast<uint64_t>(sums.integer(key).value_or(0)) + number);
        }
    }
}

Dictionary readLastTotals(const std::filesystem::path& stateDirectory) {
    const auto content = readPropertyListFile(stateDirectory / kFileName);
    const auto* last = content ? content->getIf<Dictionary>() : nullptr;
    return last != nullptr && last->dictionary(status::kTotals) != nullptr ? *last : Dictionary();
}

tl::expected<void, std::string> removeLastTotals(const std::filesystem::path& stateDirectory) {
    std::error_code error;
    std::filesystem::remove(stateDirectory / kFileName, error);
    if (error) return tl::unexpected(std::string(kFileName) + ": " + error.message());
    return {};
}

void keepLastTotals(const std::filesystem::path& stateDirectory, RunTotals run) {
    if (!hasReports(run.totals)) return;
    const Dictionary before = readLastTotals(stateDirectory);
    const Dictionary* earlier = before.dictionary(status::kAllRuns);
    Dictionary sums = earlier != nullptr ? *earlier : Dictionary{{status::kSince, Date{run.startTime}}};
    const Dictionary* known = sums.dictionary(status::kClientTypes);
    Dictionary clientTypes = known != nullptr ? *known : Dictionary();
    addNumbers(clientTypes, settled(run.clientTypes));
    sums.set(status::kClientTypes, std::move(clientTypes));
    const Dictionary last{{status::kEndTime, Date{run.endTime}},
                          {status::kTotals, std::move(run.totals)},
                          {status::kAllRuns, std::move(sums)}};
    const auto document = serializePropertyList(last, PropertyListFormat::xml);
    const auto kept =
        document ? replaceFile(stateDirectory / kFileName, *document) : tl::make_unexpected(document.error());
    if (!kept) TELVORA_LOG(kLogWarning, "main: can't keep the last totals: %s", kept.error().c_str());
}

}  // namespace telvora
