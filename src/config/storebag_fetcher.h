// SPDX-License-Identifier: Apache-2.0
//
// Fetching a storebag: download, signature check, selection of the environment's section. A fetch takes up to
// 15 seconds, during which no thread waits for it. No state of its own; callable from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "config/client_framework.h"
#include "config/environment.h"
#include "config/signed_bag.h"
#include "http/http_client.h"
#include "plist/property_list.h"

namespace telvora {

// The services of a fetch; all must outlive the fetcher.
struct StorebagFetcherServices {
    HttpClient& http;
    const Environment& environment;
    const ClientFramework& framework;
    // Runs work that takes too long for the HTTP client's thread (the signature, the bag's text), and with it
    // the completions of fetches. By default at once.
    std::function<void(std::function<void()> work)> perform = [](const auto& work) { work(); };
};

// The course of a fetch, for administrators.
struct StorebagFetchReport {
    std::string url{};   // without its query; empty: no bag is fetched for the client type
    int httpStatus = 0;  // 0: no answer
    BagFault fault{};
};

// Additional results of a fetch.
struct StorebagFetchStatus {
    int32_t maxAge = 0;                         // seconds; unchanged if the server wasn't reached
    bool notChanged = false;                    // the caller's copy is still current
    bool builtIn = false;                       // the result is the built-in stand-in
    bool noMemory = false;                      // there was none for the answer
    std::optional<std::string> lastModified{};  // in: of the caller's copy; out: of the answer
    std::string document{};                     // the signed document, if it has a valid bag
    StorebagFetchReport report{};
};

struct FetchedStorebag {
    std::optional<Dictionary>
        section{};  // std::nullopt on failure, and if the caller's copy is still current
    std::optional<std::string> version{};  // of the bag, if there is a section
    StorebagFetchStatus status{};
};

class StorebagFetcher {
  public:
    using BagCompletion = std::function<void(std::optional<Dictionary> bag, StorebagFetchStatus status)>;
    using Completion = std::function<void(FetchedStorebag fetched)>;

    explicit StorebagFetcher(StorebagFetcherServices services) : services_(std::move(services)) {}

    // Reads the settings of a fetch, which are read once per process. For callers that may not wait for a
    // file later.
    void readSettings() const;

    // Downloads and verifies the bag of that name (std::nullopt: the fetch uses an absent name). Calls `done`
    // once, with the inner bag, or std::nullopt on failure. If the server can't be reached, the bag "quillet"
    // has a built-in replacement.
    void fetchStorebagWithName(std::optional<std::string> name, StorebagFetchStatus status,
                               BagCompletion done) const;

    // The address of a client type's bag, without its query.
    std::string urlOf(const std::optional<std::string>& name) const;
    // The section of a signed document that was fetched before, if its signature is still valid.
    FetchedStorebag reopen(std::string document, uint32_t clientType) const;

    // Fetches the bag of a client type. Calls `done` once, with its section for the current environment.
    void fetchStorebagForEnvironmentAndClientType(uint32_t clientType, StorebagFetchStatus status,
                                                  Completion done) const;

  private:
    std::optional<Dictionary> bagOf(const HttpResult& result, const std::optional<std::string>& name,
                                    const std::string& url, StorebagFetchStatus& status) const;
    std::optional<Dictionary> sectionOf(const std::optional<Dictionary>& bag, uint32_t clientType,
                                        std::optional<std::string>& version,
                                        StorebagFetchStatus& status) const;

    const StorebagFetcherServices services_;
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
