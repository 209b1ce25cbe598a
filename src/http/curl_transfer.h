// SPDX-License-Identifier: Apache-2.0
//
// One libcurl easy handle and the exchange that it currently carries. Handles are reused, because setting up
// a new one costs more than a small post; those of old releases of libcurl are not (renew()). Belongs to the
// HTTP thread.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "http/curl_connections.h"
#include "http/curl_library.h"
#include "http/http_exchange.h"

namespace telvora {

// The error for one of libcurl's codes.
HttpError makeHttpError(CURLcode code, std::string_view description) noexcept;

class CurlTransfer {
  public:
    // `curl` must outlive the transfer, `connections` all connections; `options` need not. handle() is null
    // when libcurl has no memory left.
    CurlTransfer(const CurlLibrary& curl, const CurlHttpClientOptions& options, CurlConnections& connections);
    ~CurlTransfer();
    CurlTransfer(const CurlTransfer&) = delete;
    CurlTransfer& operator=(const CurlTransfer&) = delete;

    // Prepares a free transfer for another exchange; false when libcurl has no memory left.
    bool renew(const CurlHttpClientOptions& options);

    // The transfer that a handle belongs to.
    static CurlTransfer& of(const CurlLibrary& curl, CURL* handle);

    CURL* handle() const { return easy_; }
    // Null while the transfer is free.
    HttpExchange* exchange() const { return exchange_.get(); }

    // Takes an exchange and sets the handle up for it; the handle may then be added to a multi handle. On an
    // error the exchange has been taken as well, and the caller must call end().
    CURLcode begin(std::unique_ptr<HttpExchange> exchange);

    // Whether the exchange failed because a kept connection turned out to be closed before the request was
    // sent whole. Then no server can have acted on it (RFC 9112, section 9.3.1), and the handle is set up for
    // a new connection. libcurl itself repeats requests that were sent whole: see onRequest().
    bool shouldStartAgain(CURLcode code);
    // Whether the server carries several exchanges over one connection (HTTP/2).
    bool isMultiplexed() const;
    // The result of the exchange, which libcurl ended with `code`.
    HttpResult end(CURLcode code) noexcept;
    // Returns the exchange; the transfer is then free.
    std::unique_ptr<HttpExchange> release();

  private:
    // Asked before each attempt of libcurl's to send the request. Ends the exchange if a server may have
    // acted on an earlier attempt, or, to start again, before a kept connection turns out to be closed.
    static int onRequest(void* self, char* peer, char* local, int peerPort, int localPort) noexcept;
    bool mayAttempt(CurlConnections::Name connection);
    static size_t onHeader(char* data, size_t size, size_t count, void* self) noexcept;
    static size_t onBody(char* data, size_t size, size_t count, void* self) noexcept;
    void readHeader(std::string_view line);
    void readKeepAlive(std::string_view parameters);
    void setConstantOptions(const CurlHttpClientOptions& options);
    void setFiles(const HttpLink& link);
    void setMethodAndBody(const HttpRequest& request);
    curl_slist* makeHeaderList(const HttpRequest& request);

    const CurlLibrary& curl_;
    CurlConnections& connections_;
    CURL* easy_;
    std::unique_ptr<HttpExchange> exchange_;
    HttpResponse response_;
    size_t headerBytes_ = 0;
    size_t bodyBytes_ = 0;
    bool tooLong_ = false;
    CurlConnections::Name connection_;  // of the newest attempt
    bool sentOnKept_ = false;           // the newest attempt
    bool isStale_ = false;              // that connection is at its end; the request was not sent on it
    bool unanswered_ = false;           // the server ended that connection instead of an answer
    std::array<char, CURL_ERROR_SIZE> errorText_{};
    std::string headerText_;              // the request's header lines, each zero-terminated
    std::vector<curl_slist> headerList_;  // nodes that point into headerText_
};

}  // namespace telvora
