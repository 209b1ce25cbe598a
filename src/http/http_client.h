// SPDX-License-Identifier: Apache-2.0
//
// HTTP as the daemon uses it: one shared client for everything, requests that complete once on the client's
// thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <utility>
#include <vector>

namespace telvora {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
    std::string method = "GET";
    std::string url = {};  // absolute, http or https
    // Sent in this order; Content-Length is derived from the body, whatever stands here.
    HttpHeaders headers = {};
    std::string body = {};
    // For the whole exchange, its wait in line included; nothing: the client's defaults (a connection not
    // made within 15 s, a transfer stalled for 60 s and a wait in line of 60 s are given up). At most a day.
    std::optional<std::chrono::milliseconds> timeout = std::nullopt;
    // A longer answer is a transport error.
    size_t maxResponseBytes = size_t{16} << 20;
    // Whether the body of the answer is wanted; if not, it is read and dropped.
    bool keepResponseBody = true;
    // Whether the body counts as pending bytes; a caller that bounds its large bodies itself says no, so that
    // they take nobody else's room.
    bool countBody = true;
};

struct HttpResponse {
    int status = 0;
    HttpHeaders headers;
    std::string body;

    // The value of the first header of that name, compared without regard to case (RFC 9110), or nothing.
    std::optional<std::string_view> header(std::string_view name) const;
    // The values of all headers of that name as the one list that they stand for, with ", " between them (RFC
    // 9110, section 5.3); empty when there is none.
    std::string listHeader(std::string_view name) const;
};

// A transport failure: no complete answer arrived.
struct HttpError {
    enum class Kind {
        notSent,         // no request that can be made, or the client is shutting down
        tooManyPending,  // the client holds as much as it may
        noConnection,    // the server was not reached
        noAnswer         // it was; what it made of the request is not known
    };
    int code = 0;  // the transfer library's number, never 0
    std::string description;
    Kind kind = Kind::noAnswer;
};

using HttpResult = tl::expected<HttpResponse, HttpError>;

class HttpClient {
  public:
    // Runs exactly once, on the client's own thread or (when the request is refused at once) before start()
    // returns; must not block.
    using Completion = std::function<void(HttpResult)>;

    virtual ~HttpClient() = default;

    // Starts one exchange. Callable from any thread. A client that holds as many requests or pending bytes as
    // it may completes with an error at once, and so does a request that can't be put on the wire (no http or
    // https URL, a control character in a header).
    virtual void start(HttpRequest request, Completion completion) = 0;

    // Ends what is in flight, each completion with an error, and refuses all that comes later. Callable from
    // any thread but from a completion. Base: nothing, for clients that hold nothing in flight.
    virtual void stop() {}
};

// start() and wait for the completion; blocks the calling thread, which tells its work pool so (work_pool.h).
// Not to be called from a completion.
HttpResult performBlocking(HttpClient& client, HttpRequest request);

struct CurlHttpClientOptions {
    long maxConnections = 32;                    // over all hosts; more requests wait in line
    long maxConnectionsPerHost = 6;              // several hosts may hang before the others must wait
    size_t maxPendingRequests = 16384;           // queued or in flight; beyond it a start fails
    size_t maxPendingBytes = size_t{64} << 20;   // of bodies, headers and bookkeeping, likewise
    std::chrono::seconds idleConnectionAge{60};  // an unused connection is closed after this long
    std::string caFile = {};                     // PEM; empty: SSL_CERT_FILE, else the system's store
};

// HTTP/1.1 and, when the server offers it, HTTP/2, on one thread with one libcurl multi handle. TLS is always
// verified; redirects are not followed; only http and https are spoken. The thread starts with the first
// request and ends once no request has been pending for `idleConnectionAge`, so that an idle daemon carries
// neither its connections nor libcurl's tables. A server that hangs delays its own requests: hosts wait in
// lines of their own, and one that has requests pending may fill half of the limits. Proxies named in the
// environment are not used. Destruction ends what is in flight: every completion still runs, with an error.
// Not to be destroyed from a completion.
std::unique_ptr<HttpClient> makeCurlHttpClient(CurlHttpClientOptions options = {});

}  // namespace telvora
