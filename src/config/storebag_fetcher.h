// SPDX-License-Identifier: Apache-2.0
//
// Fetching a storebag: download, signature check, selection of the environment's section. Fetches block for
// up to 15 seconds. No state of its own; callable from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "config/client_framework.h"
#include "config/environment.h"
#include "http/http_client.h"
#include "plist/property_list.h"

namespace telvora {

// The services of a fetch; all must outlive the fetcher.
struct StorebagFetcherServices {
    HttpClient& http;
    const Environment& environment;
    const ClientFramework& framework;
};

// Additional results of a fetch.
struct StorebagFetchStatus {
    int32_t maxAge = 0;                         // seconds; unchanged if the server wasn't reached
    bool notChanged = false;                    // the caller's copy is still current
    bool builtIn = false;                       // the result is the built-in stand-in
    std::optional<std::string> lastModified{};  // in: of the caller's copy; out: of the answer
};

class StorebagFetcher {
  public:
    explicit StorebagFetcher(StorebagFetcherServices services) : services_(services) {}

    // Reads the settings of a fetch, which are read once per process. For callers that hold a lock across the
    // fetch, under which they must not wait for a file.
    void readSettings() const;

    // Downloads and verifies the bag of that name (std::nullopt: the fetch uses an absent name). Returns the
    // inner bag, or std::nullopt on failure. If the server can't be reached, the bag "quillet" has a built-in
    // replacement.
    std::optional<Dictionary> fetchStorebagWithName(const std::optional<std::string>& name,
                                                    StorebagFetchStatus& status) const;

    // Fetches the bag of a client type and returns its section for the current environment, or std::nullopt
    // on failure. Sets `version` to the bag's own version if there is a result.
    std::optional<Dictionary> fetchStorebagForEnvironmentAndClientType(uint32_t clientType,
                                                                       std::optional<std::string>& version,
                                                                       StorebagFetchStatus& status) const;

  private:
    StorebagFetcherServices services_;
};

// Whether a bag is fetched for sessions of this client type. Other types without a bag name ask the server
// for "(null)".
constexpr bool isBagFetchedFor(uint32_t clientType) {
    return clientType != 0;
}

// The name of the bag that serves a client type; std::nullopt if the type has no bag.
std::optional<std::string> bagNameForClientType(uint32_t clientType);

// The section of a bag for an environment, or null. Replaces a missing section of the seed environment by
// "release", with a line at level 4. The section is part of the bag.
const Dictionary* sectionForEnvironment(const Dictionary& bag, EnvironmentType type);

// How long the bag may be used, in seconds: at most a day, possibly 0 or less. std::nullopt if the bag does
// not set it.
std::optional<int32_t> refreshCycleOf(const Dictionary& bag);

}  // namespace telvora
