// SPDX-License-Identifier: Apache-2.0
//
// The front of the client: it accepts requests within its limits, and runs the thread of the engine and of
// the completions. The thread sleeps without a timeout while exchanges are active. After the last one it
// waits for the life of an idle connection, then ends and releases connections, the certificate store and
// libcurl's tables. So an idle client costs neither memory nor wakeups.
#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <thread>

#include "http/curl_engine.h"
#include "http/http_client.h"
#include "http/http_request_rules.h"
#include "http/pending_requests.h"
#include "util/attempt.h"
#include "util/log.h"
#include "util/mutex.h"
#include "util/signal_mask.h"

namespace telvora {

namespace {

constexpr std::chrono::milliseconds kMaxTimeout = std::chrono::hours(24);
constexpr size_t kMaxPendingBags = 256;
constexpr size_t kExchangeOverhead = 1024;  // bytes of an exchange beside its texts

HttpResult failure(CURLcode code, std::string_view description) {
    return tl::unexpected(makeHttpError(code, description));
}

size_t costOf(const HttpRequest& request) {
    size_t cost = kExchangeOverhead + request.url.size() + (request.countBody ? request.body.capacity() : 0);
    for (const auto& [name, value] : request.headers)
        cost += name.size() + value.size();
    return cost;
}

class CurlHttpClient : public HttpClient {
  public:
    explicit CurlHttpClient(CurlHttpClientOptions options)
        : options_(std::move(options)),
          pending_(options_.maxPendingRequests, options_.maxPendingBytes),
          pendingBags_(kMaxPendingBags, options_.maxPendingBytes) {}
    ~CurlHttpClient() override;

    void start(HttpRequest request, Completion completion) override TELVORA_EXCLUDES(mutex_);
    void stop() override TELVORA_EXCLUDES(mutex_);

  private:
    HttpResult accept(std::unique_ptr<HttpExchange>& exchange) TELVORA_EXCLUDES(mutex_);
    PendingRequests& pendingLike(const HttpExchange& exchange) TELVORA_REQUIRES(mutex_) {
        return exchange.isForBag() ? pendingBags_ : pending_;
    }
    bool openLibrary() TELVORA_REQUIRES(mutex_);
    bool ensureThread() TELVORA_REQUIRES(mutex_);

    void run() TELVORA_EXCLUDES(mutex_);
    void serve(CurlEngine& engine) TELVORA_EXCLUDES(mutex_);
    bool takeIncoming(CurlEngine& engine) TELVORA_EXCLUDES(mutex_);
    bool waitForWork(CurlEngine& engine) TELVORA_EXCLUDES(mutex_);
    bool mayEnd() TELVORA_EXCLUDES(mutex_);
    void refuseIncoming(CURLcode code) TELVORA_EXCLUDES(mutex_);
    void complete(CurlEngine::Finished finished) noexcept TELVORA_EXCLUDES(mutex_);
    void completeOne(std::unique_ptr<HttpExchange> exchange) noexcept TELVORA_EXCLUDES(mutex_);
    void forget(const HttpExchange& exchange) TELVORA_EXCLUDES(mutex_);

    const CurlHttpClientOptions options_;
    Mutex mutex_;
    std::vector<std::unique_ptr<HttpExchange>> incoming_ TELVORA_GUARDED_BY(mutex_);
    PendingRequests pending_ TELVORA_GUARDED_BY(mutex_);
    PendingRequests pendingBags_ TELVORA_GUARDED_BY(mutex_);
    CurlEngine* sleeper_ TELVORA_GUARDED_BY(mutex_) = nullptr;  // the engine, while it waits
    bool running_ TELVORA_GUARDED_BY(mutex_) = false;
    bool stopping_ TELVORA_GUARDED_BY(mutex_) = false;
    std::unique_ptr<CurlLibrary> curl_;  // null before the first request
    std::thread thread_;                 // joinable once started, even after its end
};

CurlHttpClient::~CurlHttpClient() {
    CurlHttpClient::stop();
    if (thread_.joinable()) thread_.join();
}

void CurlHttpClient::stop() {
    const MutexLock lock(mutex_);
    stopping_ = true;
    if (sleeper_ != nullptr) sleeper_->wake();
}

void CurlHttpClient::start(HttpRequest request, Completion completion) {
    auto exchange = std::make_unique<HttpExchange>();
    exchange->request = std::move(request);
    exchange->completion = std::move(completion);
    HttpResult refusal = accept(exchange);
    if (exchange != nullptr) exchange->completion(std::move(refusal));
}

// Takes the exchange, or leaves it and returns the reason.
HttpResult CurlHttpClient::accept(std::unique_ptr<HttpExchange>& exchange) {
    const HttpRequest& request = exchange->request;
    if (std::optional<std::string> fault = faultOfRequest(request)) {
        return failure(CURLE_BAD_FUNCTION_ARGUMENT, *fault);
    }
    exchange->server = serverOfUrl(request.url);
    exchange->cost = costOf(request);
    exchange->limit = std::min(request.timeout.value_or(options_.maxWaitInLine), kMaxTimeout);
    exchange->deadline = std::chrono::steady_clock::now() + exchange->limit;

    const MutexLock lock(mutex_);
    if (stopping_) return failure(CURLE_ABORTED_BY_CALLBACK, "the HTTP client is shutting down");
    if (!ensureThread()) return failure(CURLE_FAILED_INIT, "the HTTP thread can't be started");
    if (incoming_.size() == incoming_.capacity()) incoming_.reserve(2 * incoming_.size() + 1);
    if (!pendingLike(*exchange).add(*exchange)) {
        return failure(CURLE_NO_CONNECTION_AVAILABLE, "too many requests are pending");
    }
    incoming_.push_back(std::move(exchange));
    if (sleeper_ != nullptr) std::exchange(sleeper_, nullptr)->wake();
    return {};
}

bool CurlHttpClient::openLibrary() {
    auto opened = CurlLibrary::open();
    if (!opened) {
        TELVORA_LOG(kLogError, "CurlHttpClient(start): can't load libcurl: %s", opened.error().c_str());
        return false;
    }
    curl_ = std::move(*opened);
    return true;
}

bool CurlHttpClient::ensureThread() {
    if (running_) return true;
    if (curl_ == nullptr && !openLibrary()) return false;
    if (thread_.joinable()) thread_.join();  // it has set running_ to false and returns
    try {
        const SignalsBlocked inherited;
        thread_ = std::thread([this] { run(); });
    } catch (const std::exception& error) {
        TELVORA_LOG(kLogError, "CurlHttpClient(start): can't start a thread: %s", error.what());
        return false;
    }
    running_ = true;
    return true;
}

void CurlHttpClient::run() {
    pthread_setname_np(pthread_self(), "telvora-http");
    do {
        std::unique_ptr<CurlEngine> engine;
        attempt("CurlHttpClient(run)", [&] { engine = CurlEngine::make(*curl_, options_); });
        if (engine == nullptr) {
            refuseIncoming(CURLE_OUT_OF_MEMORY);
        } else {
            serve(*engine);
        }
    } while (!mayEnd());
    malloc_trim(0);  // returns the memory of the exchanges to the system
}

// Returns once the engine has been idle for long enough or has failed, or the client is destroyed.
void CurlHttpClient::serve(CurlEngine& engine) {
    for (;;) {
        if (!takeIncoming(engine)) {
            complete(engine.abandon(CURLE_ABORTED_BY_CALLBACK));
            return;
        }
        CurlEngine::Finished finished = engine.perform();
        if (engine.failed()) return complete(std::move(finished));
        if (finished) {
            complete(std::move(finished));
        } else if (!waitForWork(engine)) {
            return;
        }
    }
}

// Passes new exchanges to the engine; false if the client stops.
bool CurlHttpClient::takeIncoming(CurlEngine& engine) {
    std::vector<std::unique_ptr<HttpExchange>> incoming;
    bool stopping;
    {
        const MutexLock lock(mutex_);
        incoming.swap(incoming_);
        stopping = stopping_;
    }
    for (auto& exchange : incoming) {
        if (attempt("CurlHttpClient(takeIncoming)", [&] { engine.add(exchange); })) continue;
        exchange->result = failure(CURLE_OUT_OF_MEMORY, curl_->easyStrerror(CURLE_OUT_OF_MEMORY));
        completeOne(std::move(exchange));
    }
    return !stopping;
}

// Waits for work; false after the life of an idle connection without any.
bool CurlHttpClient::waitForWork(CurlEngine& engine) {
    using std::chrono::milliseconds;
    const bool idle = engine.empty();
    const milliseconds limit = idle ? milliseconds(options_.idleConnectionAge) : milliseconds::max();
    {
        const MutexLock lock(mutex_);
        if (!incoming_.empty() || stopping_) return true;
        sleeper_ = &engine;
    }
    const auto begin = std::chrono::steady_clock::now();
    engine.wait(limit);
    {
        const MutexLock lock(mutex_);
        sleeper_ = nullptr;
        if (!incoming_.empty() || stopping_) return true;
    }
    return !idle || std::chrono::steady_clock::now() - begin < limit;
}

// Whether the thread ends. It then counts as ended: start() makes a new one.
bool CurlHttpClient::mayEnd() {
    const MutexLock lock(mutex_);
    if (!incoming_.empty()) return false;
    running_ = false;
    return true;
}

void CurlHttpClient::refuseIncoming(CURLcode code) {
    std::vector<std::unique_ptr<HttpExchange>> refused;
    {
        const MutexLock lock(mutex_);
        refused.swap(incoming_);
    }
    for (auto& exchange : refused) {
        exchange->result = failure(code, curl_->easyStrerror(code));
        completeOne(std::move(exchange));
    }
}

// Each request stops counting before its completion runs, so that the completion may start another.
void CurlHttpClient::complete(CurlEngine::Finished finished) noexcept {
    while (finished) {
        CurlEngine::Finished next = std::move(finished->next);
        completeOne(std::move(finished));  // and frees the objects that its completion keeps alive
        finished = std::move(next);
    }
}

void CurlHttpClient::completeOne(std::unique_ptr<HttpExchange> exchange) noexcept {
    forget(*exchange);
    try {
        const Completion completion = std::move(exchange->completion);  // an exception destroys it
        completion(std::move(exchange->result));
    } catch (const std::exception& error) {
        TELVORA_LOG(kLogError, "CurlHttpClient(complete): a completion failed: %s", error.what());
    } catch (...) {
        TELVORA_LOG(kLogError, "CurlHttpClient(complete): a completion failed");
    }
}

void CurlHttpClient::forget(const HttpExchange& exchange) {
    const MutexLock lock(mutex_);
    pendingLike(exchange).remove(exchange);
}

std::string caFileFromEnvironment() {
    const char* file = std::getenv("SSL_CERT_FILE");
    return file != nullptr ? file : "";
}

}  // namespace

std::unique_ptr<HttpClient> makeCurlHttpClient(CurlHttpClientOptions options) {
    if (options.link.caFile.empty()) options.link.caFile = caFileFromEnvironment();
    return std::make_unique<CurlHttpClient>(std::move(options));
}

}  // namespace telvora
