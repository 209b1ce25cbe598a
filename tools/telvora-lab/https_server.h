// SPDX-License-Identifier: Apache-2.0
//
// HttpsServer: an HTTP/1.1 server over TLS on 127.0.0.1. A handler can truncate its answer.
//
// All operations are callable from any thread but not from a handler; handlers run on the server's own
// threads, several at a time.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "http/http_client.h"

namespace telvora::lab {

struct ServerRequest {
    std::string method;
    std::string target;                        // path and query as they came (RFC 9112, section 3.2)
    std::string path;                          // decoded, without the query
    std::map<std::string, std::string> query;  // decoded; of several values of a name, the first
    HttpHeaders headers;                       // in no particular order
    std::string body;                          // with a Content-Encoding of gzip already undone

    // The value of the first header of that name, compared without regard to case, or `std::nullopt`.
    std::optional<std::string> header(const std::string& name) const;
};

struct ServerResponse {
    enum class Ending {
        whole,     // the complete answer
        halfBody,  // the header promises the whole body; the connection ends after half of it
        noAnswer,  // the connection ends without an answer
        reset,     // the same, by a reset
        drip,      // the whole answer, ten bytes of it a second
    };

    int status = 200;
    HttpHeaders headers;
    std::string contentType = "text/plain";
    std::string body;
    Ending ending = Ending::whole;
};

class HttpsServer {
  public:
    using Handler = std::function<ServerResponse(const ServerRequest&)>;

    // Listens at once, on a port that the kernel chooses. `connections`: the maximum number of simultaneous
    // connections; each open one has its own thread.
    HttpsServer(const std::string& certificateFile, const std::string& keyFile, Handler handler,
                size_t connections = 16);
    // Stops the server and waits for running handlers.
    ~HttpsServer();
    HttpsServer(const HttpsServer&) = delete;
    HttpsServer& operator=(const HttpsServer&) = delete;

    // 0 if the server could not be started.
    int port() const { return port_; }
    // "https://127.0.0.1:PORT"
    std::string origin() const { return "https://127.0.0.1:" + std::to_string(port_); }

    // Closes the listening socket, so that connections are refused, and waits for open connections to end.
    // Idle ones are closed within a second. No effect on a stopped server.
    void stop();
    // Listens again, on the same port. False if the port has been taken meanwhile.
    bool restart();

  private:
    struct Running;

    std::string certificateFile_;
    std::string keyFile_;
    Handler handler_;
    size_t connections_;
    int port_ = 0;
    std::unique_ptr<Running> running_;
};

}  // namespace telvora::lab
