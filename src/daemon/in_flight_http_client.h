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
#include "util/attempt.h"
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
        auto counted = std::make_shared<const Counted>(shared_, request.url, std::move(completion));
        client_.start(std::move(request), [counted = std::move(counted)](HttpResult result) {
            Shared& shared = *counted->shared;
            attempt("InFlightHttpClient", [&] {
                shared.outcomes.record(counted->url, result,
                                       TelvoradUtil::secondsFromTimeValue(shared.clock()));
            });
            counted->completion(std::move(result));
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

    // A request under way. It ends with its completion, which runs or, after an exception, is destroyed.
    struct Counted {
        Counted(std::shared_ptr<Shared> counters, std::string requestUrl, Completion done)
            : shared(std::move(counters)), url(std::move(requestUrl)), completion(std::move(done)) {
            shared->inFlight.fetch_add(1);
        }
        ~Counted() {
            if (shared->inFlight.fetch_sub(1) == 1) shared->onIdle();
        }
        Counted(const Counted&) = delete;
        Counted& operator=(const Counted&) = delete;

        const std::shared_ptr<Shared> shared;
        const std::string url;
        const Completion completion;
    };

    HttpClient& client_;
    const std::shared_ptr<Shared> shared_;
};

}  // namespace telvora
