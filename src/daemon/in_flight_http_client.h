// SPDX-License-Identifier: Apache-2.0
//
// InFlightHttpClient: counts the requests under way, so that the process ends only when all have completed.
#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "http/http_client.h"

namespace telvora {

class InFlightHttpClient final : public HttpClient {
  public:
    // `client` outlives this one. `onIdle` is called each time the last request in flight has completed, on
    // the HTTP client's thread, after that request's own completion.
    InFlightHttpClient(HttpClient& client, std::function<void()> onIdle)
        : client_(client), counter_(std::make_shared<Counter>()) {
        counter_->onIdle = std::move(onIdle);
    }

    void start(HttpRequest request, Completion completion) override {
        counter_->inFlight.fetch_add(1);
        client_.start(std::move(request),
                      [counter = counter_, completion = std::move(completion)](HttpResult result) {
                          completion(std::move(result));
                          if (counter->inFlight.fetch_sub(1) == 1) counter->onIdle();
                      });
    }

    void stop() override { client_.stop(); }

    size_t inFlight() const { return counter_->inFlight.load(); }

  private:
    struct Counter {
        std::atomic<size_t> inFlight{0};
        std::function<void()> onIdle;
    };

    HttpClient& client_;
    const std::shared_ptr<Counter> counter_;
};

}  // namespace telvora
