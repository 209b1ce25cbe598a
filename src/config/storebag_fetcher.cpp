// SPDX-License-Identifier: Apache-2.0
#include "config/storebag_fetcher.h"

#include <algorithm>
#include <limits>
#include <new>

#include "config/signed_bag.h"
#include "http/http_request_rules.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr std::chrono::milliseconds kTimeout{15'000};
constexpr int32_t kDefaultMaxAge = 86400;
constexpr size_t kMaxBagBytes = size_t{16} << 20;
constexpr int kNotModified = 304;
constexpr std::string_view kQuillet = "quillet";

// Replaces the bag "quillet" while its server can't be reached. It deliberately has no "seed" section: the
// selection falls back to "release".
Dictionary defaultBag() {
    const Dictionary section{{"vodex", Dictionary{{"active", true}}}};
    return {{"zandor_internal", section},
            {"development", section},
            {"release", section},
            {"version", "1.0.0-Quillet-Fallback"},
            {"refresh_cycle", 3600}};
}

// The seconds after "max-age" in a Cache-Control value, which is split at '=' and blanks only, as the bag
// servers write it; a day if it has no "max-age".
int32_t maxAgeOf(const HttpResponse& response) {
    const std::string cacheControl = response.listHeader("Cache-Control");
    std::string_view rest = cacheControl;
    const auto nextComponent = [&rest]() -> std::optional<std::string_view> {
        if (rest.data() == nullptr) return std::nullopt;
        const size_t end = rest.find_first_of("= ");
        const std::string_view component = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
        return component;
    };
    while (const auto component = nextComponent()) {
        if (*component != "max-age") continue;
        const auto age = nextComponent();
        if (!age) break;
        using Limits = std::numeric_limits<int32_t>;
        return static_cast<int32_t>(std::clamp<int64_t>(leadingInteger(*age), Limits::min(), Limits::max()));
    }
    return kDefaultMaxAge;
}

HttpRequest makeRequest(std::string url, const std::optional<std::string>& lastModified) {
    HttpRequest request;
    request.url = std::move(url);
    request.purpose = HttpPurpose::bag;
    request.timeout = kTimeout;
    request.maxResponseBytes = kMaxBagBytes;
    if (lastModified) {
        TELVORA_LOG(kLogDebug, "fetchStorebagWithName: Adding 'Last-Modified: %s' to the header",
                    lastModified->c_str());
        request.headers.emplace_back("If-Modified-Since", *lastModified);
    }
    return request;
}

std::optional<Dictionary> standIn(const std::optional<std::string>& name) {
    if (name != kQuillet) return std::nullopt;
    TELVORA_LOG(kLogInfo, "fetchStorebagWithName: Loading default storebag '%s'", name->c_str());
    return defaultBag();
}

// Updates the date of the caller's copy from the response; true if that copy is still current. A value that
// no request could send back counts as absent.
bool updateLastModified(const HttpResponse& response, std::optional<std::string>& lastModified) {
    const auto received = response.header("Last-Modified");
    if (!received || !isHeaderValue(*received)) return false;
    if (response.body.empty() && lastModified) {
        TELVORA_LOG(kLogDebug,
                    "fetchStorebagWithName: storebag content has not changed. using its cached version");
        return true;
    }
    lastModified = *received;
    TELVORA_LOG(kLogDebug, "fetchStorebagWithName: New 'Last-Modified: %s' received", lastModified->c_str());
    return false;
}

}  // namespace

void StorebagFetcher::readSettings() const {
    services_.environment.storebagBaseURL();
    services_.environment.userDefaultsEnvironment();
}

std::string StorebagFetcher::urlOf(const std::optional<std::string>& name) const {
    return services_.environment.storebagBaseURL() + "/" + name.value_or("(null)");
}

void StorebagFetcher::fetchStorebagWithName(std::optional<std::string> name, StorebagFetchStatus status,
                                            BagCompletion done) const {
    std::string url = urlOf(name) + "?version=" + services_.framework.bundleVersion();
    TELVORA_LOG(kLogDebug, "fetchStorebagWithName: Storebag Server URL: %s", url.c_str());

    HttpRequest request = makeRequest(url, status.lastModified);
    services_.http.start(std::move(request), [this, name = std::move(name), url, status = std::move(status),
                                              done = std::move(done)](HttpResult result) mutable {
        services_.perform([this, name = std::move(name), url = std::move(url), status = std::move(status),
                           done = std::move(done), result = std::move(result)]() mutable {
            auto bag = bagOf(result, name, url, status);
            done(std::move(bag), std::move(status));
        });
    });
}

std::optional<Dictionary> StorebagFetcher::bagOf(const HttpResult& result,
                                                 const std::optional<std::string>& name,
                                                 const std::string& url, StorebagFetchStatus& status) const
    try {
    StorebagFetchReport& report = status.report;
    report.url = urlForLog(url);
    if (!result) {
        report.fault = {BagStep::download, result.error().description};
        TELVORA_LOG(
            kLogInfo,
            "fetchStorebagWithName: Error resolving with lookup server %s, sendSynchronousRequest error %s",
            url.c_str(), result.error().description.c_str());
        status.noMemory = result.error().kind == HttpError::Kind::noMemory;
        status.builtIn = name == kQuillet;
        return standIn(name);
    }
    report.httpStatus = result->status;
    if (!isSuccess(*result) && result->status != kNotModified) {
        TELVORA_LOG(kLogWarning, "fetchStorebagWithName: %s answered %d", urlForLog(url).c_str(),
                    result->status);
    }
    status.maxAge = maxAgeOf(*result);
    if (updateLastModified(*result, status.lastModified)) {
        status.notChanged = true;
        return std::nullopt;
    }
    auto bag = openSignedBag(result->body, services_.framework.publicKeyDers());
    if (bag) {
        status.document = result->body;
        return std::move(*bag);
    }
    report.fault = std::move(bag.error());
    // Such an answer's body describes the server's error.
    if (!isSuccess(*result))
        report.fault = {BagStep::download, "the server answered " + std::to_string(result->status)};
    return std::nullopt;
} catch (const std::bad_alloc&) {
    TELVORA_LOG(kLogError, "fetchStorebagWithName: There is no memory for a bag");
    status.noMemory = true;
    return std::nullopt;
}

}  // namespace telvora
