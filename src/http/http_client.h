// SPDX-License-Identifier: Apache-2.0
//
// The HTTP client of the daemon: one shared client, whose requests complete once, on its own thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
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

// Bags have connections of their own. The time limits of reports and uploads differ.
enum class HttpPurpose : uint8_t { bag, report, upload };

struct HttpRequest {
    std::string method = "GET";
    std::string url = {};  // absolute, http or https
    // Sent in this order. Content-Length is derived from the body, even if it is set here.
    HttpHeaders headers = {};
    std::string body = {};
    HttpPurpose purpose = HttpPurpose::report;
    // Has a share of the connections and of the pending requests. All requests without a user share one.
    std::optional<uid_t> user = std::nullopt;
    // For the whole exchange, its wait in line included; at most a day. std::nullopt: the limits of the
    // purpose (CurlHttpClientOptions).
    std::optional<std::chrono::milliseconds> timeout = std::nullopt;
    // A longer answer is a transport error.
    size_t maxResponseBytes = size_t{16} << 20;
    // Whether the answer keeps its body; if not, the body is read and dropped.
    bool keepResponseBody = true;
    // Whether the body counts as pending bytes. Callers that bound their large bodies themselves set false,
    // so that these leave the room to other requests.
    bool countBody = true;
};

struct HttpResponse {
    int status = 0;
    HttpHeaders headers;
    std::string body;

    // The value of the first header of that name, compared without regard to case (RFC 9110); std::nullopt if
    // there is no such header.
    std::optional<std::string_view> header(std::string_view name) const;
    // The values of all headers of that name as one list with ", " between them (RFC 9110, section 5.3);
    // empty if there is no such header.
    std::string listHeader(std::string_view name) const;
};

// Whether the status is 2xx.
constexpr bool isSuccess(const HttpResponse& response) {
    return response.status >= 200 && response.status <= 299;
}

// A transport failure: no complete answer arrived.
struct HttpError {
    enum class Kind {
        notSent,         // an invalid request, or the client is shutting down
        noMemory,        // not sent, either
        tooManyPending,  // the client is at its limits
        noConnection,    // the server was not reached
        noAnswer         // the server was reached, and may have acted on the request
    };
    int code = 0;  // the transfer library's number, never 0
    std::string description;
    Kind kind = Kind::noAnswer;
};

using HttpResult = tl::expected<HttpResponse, HttpError>;

class HttpClient {
  public:
    // Runs exactly once: on the client's thread, or before start() returns if the request is refused at once.
    // Must not block.
    using Completion = std::function<void(HttpResult)>;

    virtual ~HttpClient() = default;

    // Starts one exchange. Callable from any thread. Completes with an error at once if the client is at its
    // limit of requests or pending bytes, and for an invalid request (no http or https URL, a control
    // character in a header).
    virtual void start(HttpRequest request, Completion completion) = 0;

    // Ends all exchanges in flight, each completion with an error, and refuses later ones. Callable from any
    // thread, but not from a completion. Base: no effect, for clients without exchanges in flight.
    virtual void stop() {}
};

// Calls start() and blocks the calling thread, as a BlockingSection (work_pool.h), until the completion has
// run. Not to be called from a completion.
HttpResult performBlocking(HttpClient& client, HttpRequest request);

// The way to the servers, as the administrator sets it. All texts may be empty. Files are PEM.
struct HttpLink {
    // URL of a proxy (http, https, socks4a or socks5h), with a user name and password if it needs them.
    std::string proxy = {};
    // Host names, domains and networks that are reached without the proxy, separated by commas
    // (CURLOPT_NOPROXY(3)).
    std::string proxyExceptions = {};
    std::string caFile = {};  // replaces SSL_CERT_FILE and the system's store
    // Of this device; with the chain.
    std::string clientCertificate = {};
    std::string clientKey = {};
    // "sha256//BASE64", separated by semicolons: TLS servers must have one of these public keys
    // (CURLOPT_PINNEDPUBLICKEY(3)).
    std::string pinnedPublicKeys = {};
};

struct CurlHttpClientOptions {
    // Exchanges under way, each with a connection of its own or a part of one (HTTP/2); further requests wait
    // in line. A user alone may hold half of each number.
    size_t maxConnections = 64;         // of reports and uploads
    size_t maxBagConnections = 12;      // of bags, besides
    size_t maxConnectionsPerHost = 12;  // to one server, of either kind
    // Waiting or under way, reports and uploads; further starts fail. A user alone may fill two thirds, a
    // server half. Bags have the same number of bytes besides, and room for 256 requests.
    size_t maxPendingRequests = 16384;
    size_t maxPendingBytes = size_t{64} << 20;  // bodies, headers and bookkeeping
    // Of a request without a timeout: the wait in line, then the exchange. A body prolongs the exchange by
    // its time at 16 KiB/s.
    std::chrono::milliseconds maxWaitInLine{60'000};
    std::chrono::milliseconds maxReportTime{120'000};  // and of bags
    std::chrono::milliseconds maxUploadTime{600'000};
    // An exchange below 1 KiB/s, both ways together, for this long is given up; so is a silent server.
    std::chrono::seconds rateWindow{60};
    std::chrono::seconds idleConnectionAge{60};  // unused connections are closed after this time
    HttpLink link = {};
};

// Speaks HTTP/1.1 and, if the server offers it, HTTP/2, over http and https only, on one thread with one
// libcurl multi handle. Always verifies TLS, follows no redirects, and ignores proxies of the environment.
// The files of `link` are read at each TLS handshake, so that a renewed certificate counts at the next one.
// The thread starts with the first request and ends after `idleConnectionAge` without pending requests, so
// that an idle daemon carries neither connections nor libcurl's tables. A connection must be there after 15
// s. A server that hangs delays neither requests to other servers nor other users' requests: users take
// turns, and so do the servers of a user; the requests of one user to one server keep their order.
// Destruction ends the exchanges in flight: every completion still runs, with an error. Not to be destroyed
// from a completion.
std::unique_ptr<HttpClient> makeCurlHttpClient(CurlHttpClientOptions options = {});

}  // namespace telvora
