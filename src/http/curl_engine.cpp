// SPDX-License-Identifier: Apache-2.0
#include "http/curl_engine.h"

#include <algorithm>
#include <limits>

#include "http/http_request_rules.h"
#include "util/log.h"

namespace telvora {

namespace {

// As many share a connection over HTTP/2; more would wait inside libcurl instead of in line.
constexpr size_t kMaxUnderWayPerSecureOrigin = 32;
constexpr size_t kMaxUnderWay = 192;

}  // namespace

std::unique_ptr<CurlEngine> CurlEngine::make(const CurlLibrary& curl, const CurlHttpClientOptions& options) {
    CURLM* multi = curl.multiInit();
    if (multi == nullptr) return nullptr;
    curl.multiSetopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, options.maxConnections);
    curl.multiSetopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, options.maxConnectionsPerHost);
    curl.multiSetopt(multi, CURLMOPT_MAXCONNECTS, options.maxConnections);
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

void CurlEngine::add(std::unique_ptr<HttpExchange> exchange) {
    Line& line = lines_[exchange->origin];
    if (line.limit == 0) {
        line.limit = isSecureUrl(exchange->origin) ? kMaxUnderWayPerSecureOrigin
                                                   : static_cast<size_t>(options_.maxConnectionsPerHost);
    }
    deadlines_.emplace(exchange->deadline, exchange.get());
    line.waiting.push_back(std::move(exchange));
    queueTurn(line);
}

std::vector<CurlEngine::Finished> CurlEngine::perform() {
    expire();
    startWaiting();
    int running = 0;
    const CURLMcode code = curl_.multiPerform(multi_, &running);
    if (code != CURLM_OK) {
        TELVORA_LOG(kLogError, "CurlEngine(perform): %s", curl_.multiStrerror(code));
        return abandon(CURLE_FAILED_INIT);
    }
    collectEnded();
    dropEmptyLines();
    return std::exchange(finished_, {});
}

std::vector<CurlEngine::Finished> CurlEngine::abandon(CURLcode code) {
    for (const auto& transfer : transfers_) {
        if (transfer->exchange() != nullptr) finish(*transfer, code);
    }
    for (auto& [origin, line] : lines_) {
        for (auto& exchange : line.waiting)
            finishWaiting(std::move(exchange), code);
    }
    turns_.clear();
    lines_.clear();
    return std::exchange(finished_, {});
}

void CurlEngine::wait(std::chrono::milliseconds limit) {
    if (!deadlines_.empty()) {
        const auto left = deadlines_.begin()->first - std::chrono::steady_clock::now();
        limit = std::clamp(std::chrono::ceil<std::chrono::milliseconds>(left), {}, limit);
    }
    const auto milliseconds = std::min<int64_t>(limit.count(), std::numeric_limits<int>::max());
    curl_.multiPoll(multi_, nullptr, 0, static_cast<int>(milliseconds), nullptr);
}

void CurlEngine::queueTurn(Line& line) {
    if (line.inTurn || line.waiting.empty() || line.underWay >= line.limit) return;
    turns_.push_back(&line);
    line.inTurn = true;
}

void CurlEngine::startWaiting() {
    while (!turns_.empty() && underWay() < kMaxUnderWay) {
        Line& line = *turns_.front();
        turns_.pop_front();
        line.inTurn = false;
        begin(line);
        queueTurn(line);
    }
}

void CurlEngine::begin(Line& line) {
    std::unique_ptr<HttpExchange> exchange = std::move(line.waiting.front());
    line.waiting.pop_front();
    CurlTransfer* transfer = freeTransfer();
    if (transfer == nullptr) {
        finishWaiting(std::move(exchange), CURLE_OUT_OF_MEMORY);
        return;
    }
    if (!exchange->hasTimeout()) deadlines_.erase({exchange->deadline, exchange.get()});
    ++line.underWay;
    CURLcode code = transfer->begin(std::move(exchange));
    if (code == CURLE_OK && curl_.multiAddHandle(multi_, transfer->handle()) != CURLM_OK) {
        code = CURLE_OUT_OF_MEMORY;
    }
    if (code != CURLE_OK) finish(*transfer, code);
}

// Takes a transfer from the free ones; null if there is no memory for another.
CurlTransfer* CurlEngine::freeTransfer() {
    if (freeTransfers_.empty()) {
        auto made = std::make_unique<CurlTransfer>(curl_, options_);
        if (made->handle() == nullptr) return nullptr;
        transfers_.push_back(std::move(made));
        return transfers_.back().get();
    }
    CurlTransfer* transfer = freeTransfers_.back();
    freeTransfers_.pop_back();
    return transfer;
}

void CurlEngine::collectEnded() {
    int left = 0;
    while (const CURLMsg* message = curl_.multiInfoRead(multi_, &left)) {
        if (message->msg == CURLMSG_DONE) {
            const CURLcode code = message->data.result;  // the message ends with the handle's removal
            CurlTransfer& transfer = CurlTransfer::of(curl_, message->easy_handle);
            if (!startAgain(transfer, code)) finish(transfer, code);
        }
    }
}

bool CurlEngine::startAgain(CurlTransfer& transfer, CURLcode code) {
    if (!transfer.shouldStartAgain(code)) return false;
    curl_.multiRemoveHandle(multi_, transfer.handle());
    return curl_.multiAddHandle(multi_, transfer.handle()) == CURLM_OK;
}

void CurlEngine::finish(CurlTransfer& transfer, CURLcode code) {
    curl_.multiRemoveHandle(multi_, transfer.handle());
    HttpResult result = transfer.end(code);
    std::unique_ptr<HttpExchange> exchange = transfer.release();
    freeTransfers_.push_back(&transfer);

    deadlines_.erase({exchange->deadline, exchange.get()});
    Line& line = lines_.at(exchange->origin);
    --line.underWay;
    queueTurn(line);
    finished_.push_back({std::move(exchange), std::move(result)});
}

// Ends an exchange that has already left its line.
void CurlEngine::finishWaiting(std::unique_ptr<HttpExchange> exchange, CURLcode code) {
    deadlines_.erase({exchange->deadline, exchange.get()});
    finished_.push_back({std::move(exchange), tl::unexpected(makeHttpError(code, curl_.easyStrerror(code)))});
}

void CurlEngine::expire() {
    const TimePoint now = std::chrono::steady_clock::now();
    while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
        HttpExchange& exchange = *deadlines_.begin()->second;
        if (exchange.carrier != nullptr) {
            finish(*exchange.carrier, CURLE_OPERATION_TIMEDOUT);
        } else {
            finishWaiting(takeOutOfLine(exchange), CURLE_OPERATION_TIMEDOUT);
        }
    }
}

std::unique_ptr<HttpExchange> CurlEngine::takeOutOfLine(const HttpExchange& exchange) {
    Line& line = lines_.at(exchange.origin);
    const auto place = std::find_if(line.waiting.begin(), line.waiting.end(),
                                    [&](const auto& waiting) { return waiting.get() == &exchange; });
    std::unique_ptr<HttpExchange> taken = std::move(*place);
    line.waiting.erase(place);
    if (line.waiting.empty() && line.inTurn) {
        std::erase(turns_, &line);
        line.inTurn = false;
    }
    return taken;
}

// Only a line that an exchange has just left can be empty.
void CurlEngine::dropEmptyLines() {
    for (const Finished& finished : finished_) {
        const auto at = lines_.find(finished.exchange->origin);
        if (at != lines_.end() && at->second.underWay == 0 && at->second.waiting.empty()) lines_.erase(at);
    }
}

}  // namespace telvora
