// SPDX-License-Identifier: Apache-2.0
//
// The cost of one report in the HTTPS POST backend: recording it into the batch, and its share of a flush
// (JSON and gzip, with and without the copy for the message log). Times are per report.
#include <benchmark/benchmark.h>

#include <filesystem>

#include "backends/https_post_backend.h"
#include "telvora/keys.h"
#include "util/time_value.h"

namespace telvora {
namespace {

constexpr int kBatch = 50;

// Answers every post at once.
class AcceptingClient : public HttpClient {
  public:
    void start(HttpRequest request, Completion completion) override {
        bytes += request.body.size();
        completion(HttpResponse{200, {}, {}});
    }
    size_t bytes = 0;
};

struct Bench {
    explicit Bench(bool consent, bool batch = true) {
        (void)defaults.set("com.zandor.diagnosticsharing", "Enabled", consent);
        Array filters;
        for (const char* key : {"ssid", "bssid", "phoneNumber", "latitude", "longitude", "remoteAddress"})
            filters.emplace_back(Dictionary{{"key", key}, {"action", "remove"}});
        filters.emplace_back(Dictionary{{"key", "callID"}, {"action", "sha256"}, {"method", 5}});
        const Dictionary client{{"locale_whitelist", "CH"},  {"filters", std::move(filters)},
                                {"sampling_threshold", 1.0}, {"override_dnu", consent ? 0 : 1},
                                {"event_threshold", kBatch}, {"post_url", "https://post.example/"}};
        const auto device = std::make_shared<const DeviceTexts>(DeviceTexts{
            .name = "PhoneOne", .osVersion = "12.1", .build = "20B101", .hardwareType = "Model1,1"});
        backend = HTTPSPostBackend::make(
            services, kTelvoraBackendHTTPPost,
            std::make_shared<const PropertyList>(Dictionary{{"clients", Array{client}}}),
            std::make_shared<const BackendIdentity>(BackendIdentity{.compType = 12,
                                                                    .device = device,
                                                                    .requireUserInfo = true,
                                                                    .batchEvents = batch,
                                                                    .selfVersion = SelfVersion("8.0.2"),
                                                                    .startTimestamp = timeOfDay()}));
        backend->setCombinedSessionIDString("3q2+7wAAAAAAAAAAAAAAAA==.3q2+7wAAAAAAAAAAAAAAAA==");
        backend->setUserInfoDict(std::make_shared<const Dictionary>(
            Dictionary{{kTelvoraUserInfoClientName, "com.example.conference"},
                       {kTelvoraUserInfoServiceName, "conference"}}));
        backend->updateState();
    }
    ~Bench() { std::filesystem::remove_all(directory); }

    // A report of a size that is usual in conferences.
    Dictionary payload() {
        ++count;
        return {{"callID", "7D1C2B5E-5A0E-4C39-8E0B-0E3F5B6C7D8E"},
                {"codec", "HEVC"},
                {"connection", "wifi"},
                {"jitter", 3.25 + count % 7},
                {"lossPercent", 0.1 * (count % 13)},
                {"receivedBytes", 184467 + count * 977},
                {"receivedPackets", 2012 + count * 31},
                {"resolution", "1280x720"},
                {"rtt", 23 + count % 40},
                {"sentBytes", 104467 + count * 733},
                {"sentPackets", 1733 + count * 29},
                {"stalls", 0},
                {"state", "active"},
                {"targetBitrate", 1200000}};
    }

    std::filesystem::path directory = std::filesystem::temp_directory_path() / "telvora-https-post-bench";
    UserDefaults defaults{directory / "etc", directory / "state"};
    DeviceProperties properties{Dictionary{}};
    DeviceIdentity identity{properties, defaults};
    Environment environment{defaults, identity};
    AcceptingClient http;
    BackendServices services{.http = http,
                             .identity = identity,
                             .environment = environment,
                             .defaults = defaults,
                             .clock = timeOfDay,
                             .countryCode = [] { return "CH"; },
                             .timeZoneOffsetSeconds = [] { return 3600L; },
                             .random = [] { return 0.5; }};
    std::shared_ptr<HTTPSPostBackend> backend;
    int count = 0;
};

void sendIntoBatch(benchmark::State& state) {
    Bench bench(true);
    const std::optional<Dictionary> payload = bench.payload();
    for ([[maybe_unused]] auto _ : state) {
        for (int i = 0; i < kBatch; ++i)
            bench.backend->sendMessage(payload, timeOfDay(), 5, 6, SendFlag{0});
        state.PauseTiming();
        bench.backend->setState(BackendState::sampledOut);
        bench.backend->flushMessagesWithCompletion({});
        bench.backend->setState(BackendState::reporting);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(sendIntoBatch);

// Argument: whether the messages are also formatted for the message log.
void sendAndFlush(benchmark::State& state) {
    Bench bench(state.range(0) != 0);
    std::vector<std::optional<Dictionary>> payloads;
    payloads.reserve(kBatch);
    for (int i = 0; i < kBatch; ++i)
        payloads.emplace_back(bench.payload());
    for ([[maybe_unused]] auto _ : state) {
        for (const auto& payload : payloads)
            bench.backend->sendMessage(payload, timeOfDay(), 5, 6, SendFlag{0});
        benchmark::DoNotOptimize(bench.backend->flushMessagesWithCompletion({}));
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    state.counters["bytes/report"] =
        static_cast<double>(bench.http.bytes) / static_cast<double>(state.items_processed());
}
BENCHMARK(sendAndFlush)->Arg(0)->Arg(1);

void sendAtOnce(benchmark::State& state) {
    Bench bench(state.range(0) != 0, false);
    const std::optional<Dictionary> payload = bench.payload();
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(bench.backend->sendMessage(payload, timeOfDay(), 5, 6, SendFlag{0}));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(sendAtOnce)->Arg(0)->Arg(1);

}  // namespace
}  // namespace telvora

BENCHMARK_MAIN();
