// SPDX-License-Identifier: Apache-2.0
//
// The active and the waiting exchanges, on one libcurl multi handle. Belongs to one thread, except wake().
//
// An exchange without a timeout of its own may wait in line for some time, and then take the time of its
// purpose; the timeout of another covers its wait and its transfer together. These deadlines are kept here
// because libcurl's clock does not run while a transfer waits for a connection.
#pragma once

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "http/curl_connections.h"
#include "http/curl_transfer.h"
#include "http/exchange_queue.h"

namespace telvora {

class CurlEngine {
  public:
    // The first of the exchanges that have finished, or null; HttpExchange::next has the others.
    using Finished = std::unique_ptr<HttpExchange>;

    // Both must outlive the engine. Null if libcurl has no memory left.
    static std::unique_ptr<CurlEngine> make(const CurlLibrary& curl, const CurlHttpClientOptions& options);
    // Closes all connections. Drops the remaining exchanges without a result; see abandon().
    ~CurlEngine();
    CurlEngine(const CurlEngine&) = delete;
    CurlEngine& operator=(const CurlEngine&) = delete;

    // Takes the exchange. Throws std::bad_alloc, and leaves it, if there is no memory for it.
    void add(std::unique_ptr<HttpExchange>& exchange);

    // Advances all exchanges without waiting, and returns those that have ended.
    Finished perform();
    // Whether libcurl has failed: the engine is of no use any more, and has no exchange.
    bool failed() const { return failed_; }

    // Ends all exchanges with an error. Needs no memory.
    Finished abandon(CURLcode code) noexcept;

    // Waits until an exchange can advance, wake() is called, or `limit` has passed.
    void wait(std::chrono::milliseconds limit);

    // Ends the current or the next wait(). Callable from any thread while the engine lives.
    void wake();

    // Whether no exchange is active or waiting.
    bool empty() const { return bags_.empty() && others_.empty(); }

  private:
    using TimePoint = std::chrono::steady_clock::time_point;

    CurlEngine(const CurlLibrary& curl, const CurlHttpClientOptions& options, CURLM* multi)
        : curl_(curl),
          options_(options),
          multi_(multi),
          bags_(options.maxBagConnections, options.maxConnectionsPerHost),
          others_(options.maxConnections, options.maxConnectionsPerHost) {}

    ExchangeQueue& queueOf(const HttpExchange& exchange) { return exchange.isForBag() ? bags_ : others_; }
    void startWaiting();
    void begin(std::unique_ptr<HttpExchange> exchange) noexcept;
    CurlTransfer* freeTransfer();
    bool startAgain(CurlTransfer& transfer, CURLcode code);
    void finish(CurlTransfer& transfer, HttpResult result) noexcept;
    void addFinished(std::unique_ptr<HttpExchange> exchange, HttpResult result) noexcept;
    HttpResult failure(CURLcode code) const noexcept;
    void collectEnded() noexcept;
    Finished takeFinished() noexcept;
    void setDeadline(HttpExchange& exchange, std::chrono::milliseconds limit) noexcept;
    void expire() noexcept;

    const CurlLibrary& curl_;
    const CurlHttpClientOptions& options_;
    CurlConnections connections_;
    CURLM* multi_;
    std::vector<std::unique_ptr<CurlTransfer>> transfers_;
    std::vector<CurlTransfer*> freeTransfers_;
    ExchangeQueue bags_;
    ExchangeQueue others_;
    std::set<std::pair<TimePoint, const HttpExchange*>> deadlines_;
    Finished finished_;
    Finished* lastFinished_ = &finished_;  // the null at the end
    bool failed_ = false;
};

}  // namespace telvora
