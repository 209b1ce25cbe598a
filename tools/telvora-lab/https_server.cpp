// SPDX-License-Identifier: Apache-2.0
//
// The only file that includes cpp-httplib, which compiles slowly.
#include "telvora-lab/https_server.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <future>
#include <thread>

#include "util/ascii.h"

namespace telvora::lab {
namespace {

constexpr time_t kKeepAliveSeconds = 1;
constexpr size_t kKeepAliveRequests = 1000000;

// So that the server can listen on the reserved port, and again while old connections end.
void allowReuse(int socket) {
    const int on = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

// A header that the library adds to the client's headers.
bool isOfTheLibrary(const std::string& name) {
    return name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT";
}

ServerRequest fromHttplib(const httplib::Request& request) {
    ServerRequest result;
    result.method = request.method;
    result.target = request.target;
    result.path = request.path;
    for (const auto& [name, value] : request.params)
        result.query.emplace(name, value);
    for (const auto& [name, value] : request.headers) {
        if (!isOfTheLibrary(name)) result.headers.emplace_back(name, value);
    }
    result.body = request.body;
    return result;
}

void answer(const httplib::Request& request, const ServerResponse& from, httplib::Response& to) {
    to.status = from.status;
    for (const auto& [name, value] : from.headers)
        to.set_header(name, value);
    switch (from.ending) {
        case ServerResponse::Ending::whole:
            to.set_content(from.body, from.contentType);
            return;
        case ServerResponse::Ending::halfBody:
            to.set_content_provider(from.body.size(), from.contentType,
                                    [body = from.body](size_t, size_t, httplib::DataSink& sink) {
                                        sink.write(body.data(), body.size() / 2);
                                        return false;
                                    });
            return;
        case ServerResponse::Ending::noAnswer:
            ::shutdown(SSL_get_fd(request.ssl), SHUT_RDWR);
            return;
        case ServerResponse::Ending::reset: {
            const sockaddr nobody{AF_UNSPEC, {}};  // tcp(7): dissolves the connection
            static_cast<void>(::connect(SSL_get_fd(request.ssl), &nobody, sizeof nobody));
            return;
        }
        case ServerResponse::Ending::drip:
            to.set_content_provider(
                from.body.size(), from.contentType,
                [body = from.body, held = from.held](size_t offset, size_t, httplib::DataSink& sink) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(100));
                    return sink.write(body.data() + offset, 1);
                });
            return;
    }
}

}  // namespace

std::string cannotListen(const std::string& address, int port) {
    return address + (port != 0 ? " port " + std::to_string(port) : "") +
           ": can't listen; the port is taken, or the address is not one of this machine";
}

std::optional<std::string> ServerRequest::header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (equalsIgnoringAsciiCase(key, name)) return value;
    }
    return std::nullopt;
}

struct HttpsServer::Running {
    std::unique_ptr<httplib::Server> server;
    std::promise<void> accepting;
    std::thread thread;

    Running(const std::string& certificateFile, const std::string& keyFile)
        : server(certificateFile.empty()
                     ? std::make_unique<httplib::Server>()
                     : std::make_unique<httplib::SSLServer>(certificateFile.c_str(), keyFile.c_str())) {}
};

HttpsServer::HttpsServer(const std::string& certificateFile, const std::string& keyFile, Handler handler,
                         HttpsServerOptions options)
    : certificateFile_(certificateFile),
      keyFile_(keyFile),
      handler_(std::move(handler)),
      options_(std::move(options)) {
    if (!restart()) port_ = 0;
}

HttpsServer::~HttpsServer() {
    stop();
}

bool HttpsServer::restart() {
    if (running_) return true;
    auto running = std::make_unique<Running>(certificateFile_, keyFile_);
    httplib::Server& server = *running->server;
    if (!server.is_valid()) return false;

    const auto handle = [this](const httplib::Request& request, httplib::Response& response) {
        answer(request, handler_(fromHttplib(request)), response);
    };
    server.Get(".*", handle).Post(".*", handle);
    server.set_keep_alive_timeout(kKeepAliveSeconds).set_keep_alive_max_count(kKeepAliveRequests);
    server.set_tcp_nodelay(true);
    server.set_payload_max_length(options_.maxBodyBytes);
    server.set_socket_options(allowReuse);
    // Called at the start of the accept loop. From then on stop() has an effect.
    server.new_task_queue = [this, accepting = &running->accepting] {
        accepting->set_value();
        return new httplib::ThreadPool(options_.connections);
    };

    if (!reservation_ && !reservePort()) return false;
    if (!server.bind_to_port(options_.address.c_str(), port_)) return false;
    running->thread = std::thread([&server] { server.listen_after_bind(); });
    running->accepting.get_future().wait();
    running_ = std::move(running);
    return true;
}

bool HttpsServer::reservePort() {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(options_.port));
    if (inet_pton(AF_INET, options_.address.c_str(), &address.sin_addr) != 1) return false;
    UniqueFd reservation(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    allowReuse(reservation.get());
    if (bind(reservation.get(), reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        getsockname(reservation.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0)
        return false;
    port_ = ntohs(address.sin_port);
    reservation_ = std::move(reservation);
    return true;
}

void HttpsServer::stop() {
    if (!running_) return;
    running_->server->stop();
    running_->thread.join();
    running_.reset();
}

}  // namespace telvora::lab
