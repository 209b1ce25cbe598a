// SPDX-License-Identifier: Apache-2.0
#include "http/curl_engine.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <thread>

#include "util/attempt.h"
#include "util/log.h"

namespace telvora {

namespace {

// For servers that carry many exchanges over one connection.
constexpr size_t kMaxStreamsPerServer = 32;
// A body prolongs its exchange by its time at this rate.
constexpr uint64_t kLeastBodyBytesPerSecond = 16 << 10;

std::chrono::milliseconds timeLimit(const HttpRequest& request, const CurlHttpClientOptions& options) {
    const bool isUpload = request.purpose == HttpPurpose::upload;
    return (isUpload ? options.maxUploadTime : options.maxReportTime) +
           std::chrono::milliseconds(request.body.size() * 1000 / kLeastBodyBytesPerSecond);
}

HttpResult timedOut(const HttpExchange& exchange) noexcept {
    const bool isCarried = exchange.carrier != nullptr;
    char text[80];
    std::snprintf(text, sizeof text, "%s within %lld ms",
                  isCarried ? "no complete answer" : "no connection was free",
                  static_cast<long long>(exchange.limit.count()));
    HttpError error = makeHttpError(CURLE_OPERATION_TIMEDOUT, text);
    if (!isCarried) error.kind = HttpError::Kind::tooManyPending;
    return tl::unexpected(std::move(error));
}

}  // namespace

std::unique_ptr<CurlEngine> CurlEngine::make(const CurlLibrary& curl, const CurlHttpClientOptions& options) {
    CURLM* multi = curl.multiInit();
    if (multi == nullptr) return nullptr;
    // Room for all exchanges that the queues let start: those that wait inside libcurl take no turns.
    const long connections = static_cast<long>(options.maxConnections + options.maxBagConnections);
    curl.multiSetopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, connections);
    curl.multiSetopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS,
                     static_cast<long>(2 * options.maxConnectionsPerHost));
    curl.multiSetopt(multi, CURLMOPT_MAXCONNECTS, connections);
    curl.multiSetopt(multi, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_MULTIPLEX));
    return std::unique_ptr<CurlEngine>(new CurlEngine(curl, options, multi));
}

CurlEngine::~CurlEngine() {
    for (const auto& transfer : transfers_) {
        if (transfer->exchange() != nullptr) curl_.multiRemoveHandle(multi_, transfer->handle());
    }
    transfers_.clear();
    curl_.multiCleanup(multi_);
}

void CurlEngine::add(std::unique_ptr<HttpExchange>& exchange) {
    const auto deadline = deadlines_.emplace(exchange->deadline, exchange.get()).first;
    try {
        queueOf(*exchange).add(exchange);
    } catch (const std::bad_alloc&) {
        deadlines_.erase(deadline);
        throw;
    }
}

CurlEngine::Finished CurlEngine::perform() {
    expire();
    startWaiting();
    int running = 0;
    const CURLMcode code = curl_.multiPerform(multi_, &running);
    if (code != CURLM_OK) {
        TELVORA_LOG(kLogError, "CurlEngine(perform): %s", curl_.multiStrerror(code));
        failed_ = true;
        return abandon(code == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_FAILED_INIT);
    }
    collectEnded();
    return takeFinished();
}

CurlEngine::Finished CurlEngine::takeFinished() noexcept {
    lastFinished_ = &finished_;
    return std::move(finished_);
}

CurlEngine::Finished CurlEngine::abandon(CURLcode code) noexcept {
    for (const auto& transfer : transfers_) {
        if (transfer->exchange() != nullptr) finish(*transfer, transfer->end(code));
    }
    for (ExchangeQueue* queue : {&bags_, &others_}) {
        while (const HttpExchange* exchange = queue->anyWaiting())
            addFinished(queue->remove(*exchange), failure(code));
    }
    return takeFinished();
}

void CurlEngine::wait(std::chrono::milliseconds limit) {
    if (!deadlines_.empty()) {
        const auto left = deadlines_.begin()->first - std::chrono::steady_clock::now();
        limit = std::clamp(std::chrono::ceil<std::chrono::milliseconds>(left), {}, limit);
    }
    const auto milliseconds = std::min<int64_t>(limit.count(), std::numeric_limits<int>::max());
    curl_.multiPoll(multi_, nullptr, 0, static_cast<int>(milliseconds), nullptr);
}

// libcurl writes to a socket, which fails while the kernel has no memory for it.
void CurlEngine::wake() {
    constexpr int kAttempts = 100;
    for (int i = 0; i < kAttempts && curl_.multiWakeup(multi_) != CURLM_OK; ++i)
        std::this_thread::yield();
}

void CurlEngine::startWaiting() {
    for (ExchangeQueue* queue : {&bags_, &others_}) {
        while (std::unique_ptr<HttpExchange> exchange = queue->takeNext())
            begin(std::move(exchange));
    }
}

void CurlEngine::begin(std::unique_ptr<HttpExchange> exchange) noexcept {
    CurlTransfer* transfer = nullptr;
    attempt("CurlEngine(begin)", [&] { transfer = freeTransfer(); });
    if (transfer == nullptr) {
        queueOf(*exchange).release(*exchange);
        addFinished(std::move(exchange), failure(CURLE_OUT_OF_MEMORY));
        return;
    }
    if (!exchange->hasTimeout()) setDeadline(*exchange, timeLimit(exchange->request, options_));
    CURLcode code = transfer->begin(std::move(exchange));
    if (code == CURLE_OK && curl_.multiAddHandle(multi_, transfer->handle()) != CURLM_OK) {
        code = CURLE_OUT_OF_MEMORY;
    }
    if (code != CURLE_OK) finish(*transfer, transfer->end(code));
}

// Takes a transfer from the free ones; null if there is no memory for another.
CurlTransfer* CurlEngine::freeTransfer() {
    if (freeTransfers_.empty()) {
        auto made = std::make_unique<CurlTransfer>(curl_, options_, connections_);
        if (made->handle() == nullptr) return nullptr;
        freeTransfers_.reserve(transfers_.size() + 1);  // so that it can be given back
        transfers_.push_back(std::move(made));
        return transfers_.back().get();
    }
    CurlTransfer* transfer = freeTransfers_.back();
    if (!transfer->renew(options_)) return nullptr;
    freeTransfers_.pop_back();
    return transfer;
}

void CurlEngine::collectEnded() noexcept {
    int left = 0;
    while (const CURLMsg* message = curl_.multiInfoRead(multi_, &left)) {
        if (message->msg == CURLMSG_DONE) {
            const CURLcode code = message->data.result;  // the message ends with the handle's removal
            CurlTransfer& transfer = CurlTransfer::of(curl_, message->easy_handle);
            if (!startAgain(transfer, code)) finish(transfer, transfer.end(code));
        }
    }
}

bool CurlEngine::startAgain(CurlTransfer& transfer, CURLcode code) {
    if (!transfer.shouldStartAgain(code)) return false;
    curl_.multiRemoveHandle(multi_, transfer.handle());
    return curl_.multiAddHandle(multi_, transfer.handle()) == CURLM_OK;
}

void CurlEngine::finish(CurlTransfer& transfer, HttpResult result) noexcept {
    ExchangeQueue& queue = queueOf(*transfer.exchange());
    if (result && transfer.isMultiplexed()) queue.extendServer(*transfer.exchange(), kMaxStreamsPerServer);
    curl_.multiRemoveHandle(multi_, transfer.handle());
    std::unique_ptr<HttpExchange> exchange = transfer.release();
    freeTransfers_.push_back(&transfer);
    queue.release(*exchange);
    addFinished(std::move(exchange), std::move(result));
}

// Ends an exchange that has left its queue.
void CurlEngine::addFinished(std::unique_ptr<HttpExchange> exchange, HttpResult result) noexcept {
    deadlines_.erase({exchange->deadline, exchange.get()});
    exchange->result = std::move(result);
    *lastFinished_ = std::move(exchange);
    lastFinished_ = &(*lastFinished_)->next;
}

HttpResult CurlEngine::failure(CURLcode code) const noexcept {
    return tl::unexpected(makeHttpError(code, curl_.easyStrerror(code)));
}

void CurlEngine::setDeadline(HttpExchange& exchange, std::chrono::milliseconds limit) noexcept {
    auto node = deadlines_.extract({exchange.deadline, &exchange});
    exchange.limit = limit;
    exchange.deadline = std::chrono::steady_clock::now() + limit;
    node.value().first = exchange.deadline;
    deadlines_.insert(std::move(node));
}

void CurlEngine::expire() noexcept {
    const TimePoint now = std::chrono::steady_clock::now();
    while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
        const HttpExchange& exchange = *deadlines_.begin()->second;
        if (exchange.carrier != nullptr) {
            finish(*exchange.carrier, timedOut(exchange));
        } else {
            addFinished(queueOf(exchange).remove(exchange), timedOut(exchange));
        }
    }
}

}  // namespace telvora
