// SPDX-License-Identifier: Apache-2.0
//
// The headers of a bag server's answer: "Cache-Control", and dates, which come back with the next request.
#include <limits>

#include "config/client_type.h"
#include "config/storebag_cache.h"
#include "fuzz/target.h"
#include "http/http_request_rules.h"
#include "tests/support/signed_document.h"
#include "tests/support/temporary_directory.h"

namespace telvora::fuzz {

const double kMostSeconds = 0.2;

namespace {

constexpr auto kClientType = static_cast<uint32_t>(ClientType::vt);

struct Server : HttpClient {
    void start(HttpRequest request, Completion completion) override {
        last = std::move(request);
        completion(answer);
    }

    HttpResponse answer;
    HttpRequest last;
};

struct World {
    World() { directory.write("publicKey.der", test::bagKey().publicKeyToDer()); }

    test::TemporaryDirectory directory;
    UserDefaults defaults{directory.path(), directory.path()};
    DeviceProperties properties{Dictionary{}};
    DeviceIdentity identity{properties, defaults};
    Environment environment{defaults, identity};
    ClientFramework framework{directory.path()};
    Server server;
    StorebagFetcher fetcher{{server, environment, framework}};
};

FetchedStorebag fetch(World& world, std::optional<std::string> lastModified) {
    std::optional<FetchedStorebag> result;
    world.fetcher.fetchStorebagForEnvironmentAndClientType(
        kClientType, {.lastModified = std::move(lastModified)},
        [&](FetchedStorebag fetched) { result = std::move(fetched); });
    require(result.has_value(), "a fetch completes");
    return *result;
}

}  // namespace

void tryInput(std::string_view bytes) {
    static World world;
    static const std::string document = test::signedDocument(Dictionary{{"release", Dictionary{}}});
    Input input(bytes);
    world.server.answer = {200, {}, document};
    while (!input.empty()) {
        const std::string_view line = input.line();
        const size_t colon = std::min(line.find(':'), line.size());
        world.server.answer.headers.emplace_back(line.substr(0, colon),
                                                 line.substr(std::min(colon + 1, line.size())));
    }
    const FetchedStorebag first = fetch(world, std::nullopt);
    require(first.section.has_value() && !first.status.notChanged, "headers keep no bag from being used");

    int32_t now = 0;
    StorebagCache cache(world.fetcher, [&now] { return TimeValue{now, 0}; });
    cache.store(kClientType, first);
    for (const int64_t age : {int64_t{0}, int64_t{first.status.maxAge} - 1, int64_t{first.status.maxAge}}) {
        now = static_cast<int32_t>(std::clamp<int64_t>(age, 0, std::numeric_limits<int32_t>::max()));
        require(cache.storebag(kClientType).has_value() == (now < first.status.maxAge),
                "a bag is fresh for its maximum age");
    }
    if (!first.status.lastModified) return;

    world.server.answer.body.clear();
    const FetchedStorebag second = fetch(world, first.status.lastModified);
    require(second.status.notChanged && !second.section, "an empty answer with a date keeps the copy");
    const HttpResponse sent{0, world.server.last.headers, {}};
    require(sent.header("If-Modified-Since") == *first.status.lastModified, "the date returns unchanged");
    require(!faultOfRequest(world.server.last), "a request with the date is valid");
}

}  // namespace telvora::fuzz
