// SPDX-License-Identifier: Apache-2.0
//
// An HttpClient without a network.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "http/http_client.h"

namespace telvora::test {

// Answers each request at once with the result of `handler`, on the calling thread. Without a handler,
// requests are held until complete(). Every operation is callable from any thread.
class FakeHttpClient : public HttpClient {
  public:
    using Handler = std::function<HttpResult(const HttpRequest&)>;

    // Completes all held requests with an error, as every client does.
    ~FakeHttpClient() override {
        while (complete(failure("destroyed"))) {
        }
    }

    static HttpResult response(int status, std::string body = {}, HttpHeaders headers = {}) {
        return HttpResponse{status, std::move(headers), std::move(body)};
    }
    static HttpResult failure(std::string description) {
        return tl::unexpected(HttpError{7, std::move(description)});
    }

    void setHandler(Handler handler) {
        const std::lock_guard lock(mutex_);
        handler_ = std::move(handler);
    }

    void start(HttpRequest request, Completion completion) override {
        Handler handler;
        {
            const std::lock_guard lock(mutex_);
            requests_.push_back(request);
            handler = handler_;
            if (!handler) {
                held_.push_back(std::move(completion));
                return;
            }
        }
        completion(handler(request));
        if (throwsAfterCompletion) throw std::bad_alloc();
    }

    std::atomic<bool> throwsAfterCompletion{false};  // of an answer at once

    // All requests so far.
    std::vector<HttpRequest> requests() const {
        const std::lock_guard lock(mutex_);
        return requests_;
    }
    size_t requestCount() const { return requests().size(); }

    // Completes the oldest held request on the calling thread. False if no request is held.
    bool complete(HttpResult result) {
        const Completion completion = takeOldest();
        if (completion) completion(std::move(result));
        return completion != nullptr;
    }
    // Takes the oldest held request away without completing it, as a lack of memory does.
    Completion takeOldest() {
        const std::lock_guard lock(mutex_);
        if (held_.empty()) return nullptr;
        Completion oldest = std::move(held_.front());
        held_.pop_front();
        return oldest;
    }

  private:
    mutable std::mutex mutex_;
    Handler handler_;
    std::vector<HttpRequest> requests_;
    std::deque<Completion> held_;
};

// The value of a request's header, or "".
inline std::string headerOf(const HttpRequest& request, std::string_view name) {
    const HttpResponse headersOnly{0, request.headers, {}};
    return std::string(headersOnly.header(name).value_or(""));
}

}  // namespace telvora::test
