// SPDX-License-Identifier: Apache-2.0
//
// HttpsServer: an HTTP/1.1 server over TLS, or without it. A handler can truncate its answer.
//
// All operations are callable from any thread but not from a handler; handlers run on the server's own
// threads, several at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "http/http_client.h"
#include "util/unique_fd.h"

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
        reset,     // the connection is reset (RST) without an answer
        drip,      // the whole answer, ten bytes of it a second
    };

    int status = 200;
    HttpHeaders headers;
    std::string contentType = "text/plain";
    std::string body;
    Ending ending = Ending::whole;
    std::shared_ptr<const void> held = nullptr;  // destroyed when the answer has been sent, or can't be
};

struct HttpsServerOptions {
    std::string address = "127.0.0.1";  // IPv4, to listen on
    int port = 0;                       // 0: the kernel chooses
    size_t connections = 16;            // the maximum at a time; each open one has its own thread
    size_t maxBodyBytes = SIZE_MAX;     // of a request; a longer one gets status 413
};

class Feed;

// Where one of the laboratory's servers listens, and who sees its arrivals.
struct Hosting {
    std::string address = "127.0.0.1";  // IPv4
    int port = 0;                       // 0: the kernel chooses
    Feed* feed = nullptr;         // gets a record of each arrival; must outlive the server. May be null.
    size_t keptBytes = SIZE_MAX;  // of uploads, at least one; the oldest ones are dropped
};

// The message for people about a server that could not be started.
std::string cannotListen(const std::string& address, int port);

class HttpsServer {
  public:
    using Handler = std::function<ServerResponse(const ServerRequest&)>;

    // Listens at once. Without certificate and key (empty names), the server speaks HTTP without TLS.
    HttpsServer(const std::string& certificateFile, const std::string& keyFile, Handler handler,
                HttpsServerOptions options = {});
    // Stops the server and waits for running handlers.
    ~HttpsServer();
    HttpsServer(const HttpsServer&) = delete;
    HttpsServer& operator=(const HttpsServer&) = delete;

    // 0 if the server could not be started.
    int port() const { return port_; }
    // "https://ADDRESS:PORT"
    std::string origin() const {
        return (certificateFile_.empty() ? "http://" : "https://") + options_.address + ":" +
               std::to_string(port_);
    }

    // Closes the listening socket, so that connections are refused, and waits for open connections to end.
    // Idle ones are closed within a second. No effect on a stopped server.
    void stop();
    // Listens again, on the same port, which stays reserved meanwhile. False if that fails.
    bool restart();

  private:
    bool reservePort();

    struct Running;

    std::string certificateFile_;
    std::string keyFile_;
    Handler handler_;
    const HttpsServerOptions options_;
    int port_ = 0;
    UniqueFd reservation_;  // bound to the port; does not listen
    std::unique_ptr<Running> running_;
};

}  // namespace telvora::lab
