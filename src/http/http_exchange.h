// SPDX-License-Identifier: Apache-2.0
//
// A request from HttpClient::start() to its completion.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "http/http_client.h"

namespace telvora {

class CurlTransfer;
struct ExchangeLine;

struct HttpExchange {
    HttpRequest request;
    HttpClient::Completion completion;
    std::string server;                 // serverOfUrl() of the request
    size_t cost = 0;                    // in pending bytes
    std::chrono::milliseconds limit{};  // of the exchange, or of its wait in line if it has no timeout
    std::chrono::steady_clock::time_point deadline;  // the end of that time
    ExchangeLine* line = nullptr;                    // of the queue that it is in
    CurlTransfer* carrier = nullptr;                 // null while it waits
    HttpResult result = {};                          // once it has finished
    std::unique_ptr<HttpExchange> next = nullptr;    // that has finished after it

    bool hasTimeout() const { return request.timeout.has_value(); }
    bool isForBag() const { return request.purpose == HttpPurpose::bag; }
};

}  // namespace telvora
