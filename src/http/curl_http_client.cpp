// SPDX-License-Identifier: Apache-2.0
//
// The front of the client: it accepts requests within its limits, and runs the thread of the engine and of
// the completions. The thread sleeps without a timeout while exchanges are active. After the last one it
// waits for the life of an idle connection, then ends and releases connections, the certificate store and
// libcurl's tables. So an idle client costs neither memory nor wakeups.
#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "http/curl_engine.h"
#include "http/http_client.h"
#include "http/http_request_rules.h"
#include "util/log.h"
#include "util/mutex.h"
#include "util/signal_mask.h"

namespace telvora {

namespace {

constexpr std::chrono::milliseconds kMaxWaitInLine{60'000};
constexpr std::chrono::milliseconds kMaxTimeout = std::chrono::hours(24);
constexpr size_t kExchangeOverhead = 1024;  // bytes of an exchange beside its texts

HttpResult failure(CURLcode code, std::string description) {
    return tl::unexpected(makeHttpError(code, std::move(description)));
}

size_t costOf(const HttpRequest& request) {
    size_t cost = kExchangeOverhead + request.url.size() + (request.countBody ? request.body.size() : 0);
    for (const auto& [name, value] : request.headers)
        cost += name.size() + value.size();
    return cost;
}

class CurlHttpClient : public HttpClient {
  public:
    explicit CurlHttpClient(CurlHttpClientOptions options) : options_(std::move(options)) {}
    ~CurlHttpClient() override;

    void start(HttpRequest request, Completion completion) override TELVORA_EXCLUDES(mutex_);
    void stop() override TELVORA_EXCLUDES(mutex_);

  private:
    struct Load {
        size_t requests = 0;
        size_t bytes = 0;
    };

    HttpResult accept(std::unique_ptr<HttpExchange>& exchange) TELVORA_EXCLUDES(mutex_);
    bool hasRoomFor(const HttpExchange& exchange) TELVORA_REQUIRES(mutex_);
    bool openLibrary() TELVORA_REQUIRES(mutex_);
    bool ensureThread() TELVORA_REQUIRES(mutex_);

    void run() TELVORA_EXCLUDES(mutex_);
    void serve(CurlEngine& engine) TELVORA_EXCLUDES(mutex_);
    bool takeIncoming(CurlEngine& engine) TELVORA_EXCLUDES(mutex_);
    bool waitForWork(CurlEngine& engine) TELVORA_EXCLUDES(mutex_);
    bool mayEnd() TELVORA_EXCLUDES(mutex_);
    void refuseIncoming(CURLcode code) TELVORA_EXCLUDES(mutex_);
    void complete(std::vector<CurlEngine::Finished> finished) TELVORA_EXCLUDES(mutex_);
    void forget(const HttpExchange& exchange) TELVORA_EXCLUDES(mutex_);

    const CurlHttpClientOptions options_;
    Mutex mutex_;
    std::vector<std::unique_ptr<HttpExchange>> incoming_ TELVORA_GUARDED_BY(mutex_);
    Load total_ TELVORA_GUARDED_BY(mutex_);
    std::unordered_map<std::string, Load> byOrigin_ TELVORA_GUARDED_BY(mutex_);
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
        return failure(CURLE_BAD_FUNCTION_ARGUMENT, std::move(*fault));
    }
    exchange->origin = originOfUrl(request.url);
    exchange->cost = costOf(request);
    exchange->deadline =
        std::chrono::steady_clock::now() + std::min(request.timeout.value_or(kMaxWaitInLine), kMaxTimeout);

    const MutexLock lock(mutex_);
    if (stopping_) return failure(CURLE_ABORTED_BY_CALLBACK, "the HTTP client is shutting down");
    if (!hasRoomFor(*exchange)) {
        return failure(CURLE_NO_CONNECTION_AVAILABLE, "too many requests are pending");
    }
    if (!ensureThread()) return failure(CURLE_FAILED_INIT, "the HTTP thread can't be started");

    for (Load* load : {&total_, &byOrigin_[exchange->origin]}) {
        ++load->requests;
        load->bytes += exchange->cost;
    }
    incoming_.push_back(std::move(exchange));
    if (sleeper_ != nullptr) std::exchange(sleeper_, nullptr)->wake();
    return {};
}

// An origin that already has pending requests may fill half of each limit, so that a server that hangs leaves
// room for the others.
bool CurlHttpClient::hasRoomFor(const HttpExchange& exchange) {
    const auto fits = [&](const Load& load, size_t share) {
        const size_t maxBytes = options_.maxPendingBytes / share;
        return load.requests < options_.maxPendingRequests / share && load.bytes <= maxBytes &&
               exchange.cost <= maxBytes - load.bytes;
    };
    if (!fits(total_, 1)) return false;
    const auto origin = byOrigin_.find(exchange.origin);
    return origin == byOrigin_.end() || fits(origin->second, 2);
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
    } catch (const std::system_error& error) {
        TELVORA_LOG(kLogError, "CurlHttpClient(start): can't start a thread: %s", error.what());
        return false;
    }
    running_ = true;
    return true;
}

void CurlHttpClient::run() {
    pthread_setname_np(pthread_self(), "telvora-http");
    do {
        const std::unique_ptr<CurlEngine> engine = CurlEngine::make(*curl_, options_);
        if (engine == nullptr) {
            refuseIncoming(CURLE_OUT_OF_MEMORY);
        } else {
            serve(*engine);
        }
    } while (!mayEnd());
}

// Returns once the engine has been idle for long enough, or the client is destroyed.
void CurlHttpClient::serve(CurlEngine& engine) {
    for (;;) {
        if (!takeIncoming(engine)) {
            complete(engine.abandon(CURLE_ABORTED_BY_CALLBACK));
            return;
        }
        std::vector<CurlEngine::Finished> finished = engine.perform();
        if (!finished.empty()) {
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
    for (auto& exchange : incoming)
        engine.add(std::move(exchange));
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
    std::vector<CurlEngine::Finished> refused;
    {
        const MutexLock lock(mutex_);
        for (auto& exchange : incoming_)
            refused.push_back({std::move(exchange), failure(code, curl_->easyStrerror(code))});
        incoming_.clear();
    }
    complete(std::move(refused));
}

// Each request stops counting before its completion runs, so that the completion may start another.
void CurlHttpClient::complete(std::vector<CurlEngine::Finished> finished) {
    for (CurlEngine::Finished& each : finished) {
        forget(*each.exchange);
        try {
            each.exchange->completion(std::move(each.result));
        } catch (const std::exception& error) {
            TELVORA_LOG(kLogError, "CurlHttpClient(complete): a completion failed: %s", error.what());
        } catch (...) {
            TELVORA_LOG(kLogError, "CurlHttpClient(complete): a completion failed");
        }
        each.exchange.reset();  // frees the objects that its completion keeps alive
    }
}

void CurlHttpClient::forget(const HttpExchange& exchange) {
    const MutexLock lock(mutex_);
    const auto origin = byOrigin_.find(exchange.origin);
    for (Load* load : {&total_, &origin->second}) {
        --load->requests;
        load->bytes -= exchange.cost;
    }
    if (origin->second.requests == 0) byOrigin_.erase(origin);
}

std::string caFileFromEnvironment() {
    const char* file = std::getenv("SSL_CERT_FILE");
    return file != nullptr ? file : "";
}

}  // namespace

std::unique_ptr<HttpClient> makeCurlHttpClient(CurlHttpClientOptions options) {
    if (options.caFile.empty()) options.caFile = caFileFromEnvironment();
    return std::make_unique<CurlHttpClient>(std::move(options));
}

}  // namespace telvora
