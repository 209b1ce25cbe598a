// SPDX-License-Identifier: Apache-2.0
//
// Fetching a storebag: download, signature check, choice of the environment's section. The fetches block for
// up to 15 seconds and keep no state of their own; callable from any thread.
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

// What a fetch needs from the outside; all must outlive the fetcher.
struct StorebagFetcherServices {
    HttpClient& http;
    const Environment& environment;
    const ClientFramework& framework;
};

// What the two operations report beside their result.
struct StorebagFetchStatus {
    int32_t maxAge = 0;                         // seconds; stays as it was when the server wasn't reached
    bool notChanged = false;                    // the server said that the caller's copy is still right
    bool builtIn = false;                       // the result is the built-in stand-in
    std::optional<std::string> lastModified{};  // in: of the caller's copy; out: what the server sent
};

class StorebagFetcher {
  public:
    explicit StorebagFetcher(StorebagFetcherServices services) : services_(services) {}

    // Reads the settings of a fetch, which are read once per process: for callers who hold a lock across the
    // fetch that must not wait for a file.
    void readSettings() const;

    // Downloads and verifies the bag of that name (nothing: the fetch is still attempted with an absent
    // name). Returns the inner bag, or nothing. When the server can't be reached, the bag "quillet" has a
    // built-in stand-in.
    std::optional<Dictionary> fetchStorebagWithName(const std::optional<std::string>& name,
                                                    StorebagFetchStatus& status) const;

    // Fetches the bag of a client type and returns its section for the current environment, or nothing;
    // `version` is the bag's own version and is written only together with a result.
    std::optional<Dictionary> fetchStorebagForEnvironmentAndClientType(uint32_t clientType,
                                                                       std::optional<std::string>& version,
                                                                       StorebagFetchStatus& status) const;

  private:
    StorebagFetcherServices services_;
};

// Whether a bag is fetched for sessions of this client type at all. Other types without a bag's name ask
// their server for "(null)".
constexpr bool isBagFetchedFor(uint32_t clientType) {
    return clientType != 0;
}

// The name of the bag that serves a client type; nothing for a type that has none.
std::optional<std::string> bagNameForClientType(uint32_t clientType);

// The section of a bag that an environment uses, or null. "release" stands in, with a line at level 4, where
// the seed has none of its own. It lives in the bag.
const Dictionary* sectionForEnvironment(const Dictionary& bag, EnvironmentType type);

// For how many seconds a bag says that it may be used: at most a day, and perhaps none; nothing when it
// doesn't say.
std::optional<int32_t> refreshCycleOf(const Dictionary& bag);

}  // namespace telvora
