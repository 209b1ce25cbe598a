// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <limits>
#include <new>

#include "config/client_type.h"
#include "config/signed_bag.h"
#include "config/storebag_fetcher.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr int64_t kMaxRefreshCycle = 86400;

}  // namespace

std::optional<std::string> bagNameForClientType(uint32_t clientType) {
    const ClientTypeFacts* facts = factsOfClientType(clientType);
    if (facts == nullptr || facts->bagName.empty()) return std::nullopt;
    return std::string(facts->bagName);
}

const Dictionary* sectionForEnvironment(const Dictionary& bag, EnvironmentType type) {
    const std::optional<std::string> name = sectionNameForEnvironment(type);
    const Dictionary* section = name ? bag.dictionary(*name) : nullptr;
    if (section != nullptr || type != EnvironmentType::seed) return section;
    TELVORA_LOG(kLogWarning,
                "fetchStorebagForEnvironmentAndClientType: Seed section is missing in the storebag.");
    return bag.dictionary("release");
}

std::optional<int32_t> refreshCycleOf(const Dictionary& bag) {
    const std::optional<int64_t> cycle = bag.integer("refresh_cycle");
    if (!cycle) return std::nullopt;
    return static_cast<int32_t>(
        std::clamp<int64_t>(*cycle, std::numeric_limits<int32_t>::min(), kMaxRefreshCycle));
}

void StorebagFetcher::fetchStorebagForEnvironmentAndClientType(uint32_t clientType,
                                                               StorebagFetchStatus status,
                                                               Completion done) const {
    if (!isBagFetchedFor(clientType)) {
        TELVORA_LOG(
            kLogError,
            "fetchStorebagForEnvironmentAndClientType: Could not find storebag name for client type %d",
            static_cast<int>(clientType));
        status.report = {.fault = {BagStep::download, "client type 0 has no bag"}};
        return done({.status = std::move(status)});
    }
    // Moved: an exception that ends the fetch destroys the only reference to the calls that wait for it.
    auto select = [this, clientType, done = std::move(done)](const std::optional<Dictionary>& bag,
                                                             StorebagFetchStatus fetchStatus) {
        FetchedStorebag fetched{.status = std::move(fetchStatus)};
        fetched.section = sectionOf(bag, clientType, fetched.version, fetched.status);
        done(std::move(fetched));
    };
    fetchStorebagWithName(bagNameForClientType(clientType), std::move(status), std::move(select));
}

FetchedStorebag StorebagFetcher::reopen(std::string document, uint32_t clientType) const {
    auto opened = openSignedBag(document, services_.framework.publicKeyDers());
    FetchedStorebag fetched;
    std::optional<Dictionary> bag;
    if (opened) bag = std::move(*opened);
    fetched.section = sectionOf(bag, clientType, fetched.version, fetched.status);
    fetched.status.document = std::move(document);
    return fetched;
}

std::optional<Dictionary> StorebagFetcher::sectionOf(const std::optional<Dictionary>& bag,
                                                     uint32_t clientType, std::optional<std::string>& version,
                                                     StorebagFetchStatus& status) const try {
    const int printedType = static_cast<int>(clientType);
    if (!bag) {
        if (!status.notChanged) {
            TELVORA_LOG(
                kLogError,
                "fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type %d",
                printedType);
        }
        return std::nullopt;
    }
    const EnvironmentType type = services_.environment.userDefaultsEnvironment();
    const Dictionary* section = sectionForEnvironment(*bag, type);
    if (section == nullptr) {
        TELVORA_LOG(
            kLogError,
            "fetchStorebagForEnvironmentAndClientType: Could not find storebag for client type %d with %s environment",
            printedType, sectionNameForEnvironment(type).value_or("(null)").c_str());
        status.report.fault = {BagStep::section, "the bag has no section \"" +
                                                     sectionNameForEnvironment(type).value_or("(none)") +
                                                     "\" for the environment"};
        return std::nullopt;
    }
    const std::string* bagVersion = bag->string("version");
    version = bagVersion != nullptr ? std::optional(*bagVersion) : std::nullopt;
    // The refresh cycle of the bag overrides the headers of the server.
    if (const auto refreshCycle = refreshCycleOf(*bag)) {
        status.maxAge = *refreshCycle;
        TELVORA_LOG(kLogInfo, "fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge=%d",
                    status.maxAge);
    }
    return *section;
} catch (const std::bad_alloc&) {
    TELVORA_LOG(kLogError, "fetchStorebagForEnvironmentAndClientType: There is no memory for a storebag");
    status.noMemory = true;
    return std::nullopt;
}

}  // namespace telvora
