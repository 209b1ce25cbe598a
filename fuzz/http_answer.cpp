// SPDX-License-Identifier: Apache-2.0
//
// Answers of a hostile server on loopback, through the real client: one result each, within its limits.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <string>
#include <thread>

#include "fuzz/target.h"
#include "http/http_client.h"
#include "util/unique_fd.h"

namespace telvora::fuzz {

const double kMostSeconds = 0.5;

namespace {

constexpr size_t kMostHeaderBytes = size_t{256} << 10;

// Answers one request per connection with the bytes, and then ends its stream.
class Server {
  public:
    Server() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        require(bind(listener_.get(), any, size) == 0 && listen(listener_.get(), 16) == 0 &&
                    getsockname(listener_.get(), any, &size) == 0,
                "a listener on loopback");
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    }

    // The connection stays open until the result is dropped: the client keeps one that it may use again.
    UniqueFd serveOne(std::string_view answer) {
        UniqueFd peer(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        std::string request;
        char buffer[4096];
        ssize_t length = 0;
        while (request.find("\r\n\r\n") == std::string::npos &&
               (length = recv(peer.get(), buffer, sizeof buffer, 0)) > 0)
            request.append(buffer, static_cast<size_t>(length));
        send(peer.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
        shutdown(peer.get(), SHUT_WR);
        return peer;
    }

    std::string url;

  private:
    UniqueFd listener_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

}  // namespace

void tryInput(std::string_view bytes) {
    static Server server;
    static const auto client = makeCurlHttpClient();
    Input input(bytes);
    const uint8_t kind = input.byte();
    HttpRequest request;
    request.url = server.url;
    request.method = kind % 4 == 0 ? "HEAD" : "GET";
    request.timeout = std::chrono::seconds(5);
    request.maxResponseBytes = size_t{1} << (kind >> 2) % 16;
    UniqueFd peer;
    std::thread serving([&peer, answer = input.rest()] { peer = server.serveOne(answer); });
    const HttpResult result = performBlocking(*client, request);
    serving.join();
    if (!result) {
        require(result.error().code != 0 && !result.error().description.empty(), "a failure has a reason");
        return;
    }
    require(result->status >= 0 && result->status <= 999, "a status has three digits");
    require(result->body.size() <= request.maxResponseBytes, "an answer is bounded");
    size_t headerBytes = 0;
    for (const auto& [name, value] : result->headers) {
        headerBytes += name.size() + value.size();
        require((name + value).find('\n') == std::string::npos, "a header is one line");
        require(result->header(name).has_value(), "a header is found by its name");
        require(result->listHeader(name).find(value) != std::string::npos, "a list has all its values");
    }
    require(headerBytes <= kMostHeaderBytes, "the headers of an answer are bounded");
}

}  // namespace telvora::fuzz
