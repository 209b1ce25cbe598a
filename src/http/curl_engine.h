// SPDX-License-Identifier: Apache-2.0
//
// The active and the waiting exchanges, on one libcurl multi handle. Belongs to one thread, except wake().
//
// Exchanges wait in a line per origin, and origins take turns, so that a server that hangs fills only its own
// line. An exchange without a timeout of its own may wait in line for a minute; the timeout of another covers
// its wait and its transfer together. These deadlines are kept here because libcurl's clock does not run
// while a transfer waits for a connection.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "http/curl_transfer.h"

namespace telvora {

class CurlEngine {
  public:
    struct Finished {
        std::unique_ptr<HttpExchange> exchange;
        HttpResult result;
    };

    // Both must outlive the engine. Null if libcurl has no memory left.
    static std::unique_ptr<CurlEngine> make(const CurlLibrary& curl, const CurlHttpClientOptions& options);
    // Closes all connections. Drops the remaining exchanges without a result; see abandon().
    ~CurlEngine();
    CurlEngine(const CurlEngine&) = delete;
    CurlEngine& operator=(const CurlEngine&) = delete;

    void add(std::unique_ptr<HttpExchange> exchange);

    // Advances all exchanges without waiting, and returns those that have ended.
    std::vector<Finished> perform();

    // Ends all exchanges with an error.
    std::vector<Finished> abandon(CURLcode code);

    // Waits until an exchange can advance, wake() is called, or `limit` has passed.
    void wait(std::chrono::milliseconds limit);

    // Ends the current or the next wait(). Callable from any thread while the engine lives.
    void wake() { curl_.multiWakeup(multi_); }

    // Whether no exchange is active or waiting.
    bool empty() const { return lines_.empty(); }

  private:
    using TimePoint = std::chrono::steady_clock::time_point;

    // The exchanges of one origin; exists while it has any.
    struct Line {
        size_t limit = 0;  // the most active exchanges
        size_t underWay = 0;
        bool inTurn = false;  // it is in turns_
        std::deque<std::unique_ptr<HttpExchange>> waiting;
    };

    CurlEngine(const CurlLibrary& curl, const CurlHttpClientOptions& options, CURLM* multi)
        : curl_(curl), options_(options), multi_(multi) {}

    void startWaiting();
    void queueTurn(Line& line);
    void begin(Line& line);
    CurlTransfer* freeTransfer();
    bool startAgain(CurlTransfer& transfer, CURLcode code);
    void finish(CurlTransfer& transfer, CURLcode code);
    void finishWaiting(std::unique_ptr<HttpExchange> exchange, CURLcode code);
    void collectEnded();
    void expire();
    std::unique_ptr<HttpExchange> takeOutOfLine(const HttpExchange& exchange);
    void dropEmptyLines();
    size_t underWay() const { return transfers_.size() - freeTransfers_.size(); }

    const CurlLibrary& curl_;
    const CurlHttpClientOptions& options_;
    CURLM* multi_;
    std::vector<std::unique_ptr<CurlTransfer>> transfers_;
    std::vector<CurlTransfer*> freeTransfers_;
    std::unordered_map<std::string, Line> lines_;
    std::deque<Line*> turns_;  // lines with a waiting exchange and room for it
    std::set<std::pair<TimePoint, HttpExchange*>> deadlines_;
    std::vector<Finished> finished_;
};

}  // namespace telvora
