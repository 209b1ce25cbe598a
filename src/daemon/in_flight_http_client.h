// SPDX-License-Identifier: Apache-2.0
//
// InFlightHttpClient: counts the requests under way, so that the process ends only when all have completed,
// and records their outcomes.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "http/http_client.h"
#include "http/server_outcomes.h"
#include "util/time_value.h"

namespace telvora {

class InFlightHttpClient final : public HttpClient {
  public:
    // `client` outlives this one. `onIdle` is called each time the last request in flight has completed, on
    // the HTTP client's thread, after that request's own completion. `clock` dates the outcomes.
    InFlightHttpClient(HttpClient& client, Clock clock, std::function<void()> onIdle)
        : client_(client), shared_(std::make_shared<Shared>()) {
        shared_->clock = std::move(clock);
        shared_->onIdle = std::move(onIdle);
    }

    void start(HttpRequest request, Completion completion) override {
        shared_->inFlight.fetch_add(1);
        std::string url = request.url;
        client_.start(std::move(request), [shared = shared_, url = std::move(url),
                                           completion = std::move(completion)](HttpResult result) {
            shared->outcomes.record(url, result, TelvoradUtil::secondsFromTimeValue(shared->clock()));
            completion(std::move(result));
            if (shared->inFlight.fetch_sub(1) == 1) shared->onIdle();
        });
    }

    void stop() override { client_.stop(); }

    size_t inFlight() const { return shared_->inFlight.load(); }
    const ServerOutcomes& outcomes() const { return shared_->outcomes; }

  private:
    struct Shared {
        std::atomic<size_t> inFlight{0};
        Clock clock;
        std::function<void()> onIdle;
        ServerOutcomes outcomes;
    };

    HttpClient& client_;
    const std::shared_ptr<Shared> shared_;
};

}  // namespace telvora
