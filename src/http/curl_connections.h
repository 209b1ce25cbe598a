// SPDX-License-Identifier: Apache-2.0
//
// CurlConnections: the sockets of libcurl's connections, and those that carry one exchange after another.
//
// A server may close a kept connection at any time, and announces that over TLS. libcurl does not see the
// announcement before it sends the next request; it then repeats the request on another connection, although
// the server may have acted on it. A look at the socket right before the request tells the two cases apart:
// a kept connection that has input then is at its end, and the request has not been sent. A connection that
// its server is about to close is not used either.
//
// Belongs to the HTTP thread.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace telvora {

class CurlConnections {
  public:
    // As libcurl names a connection: the peer's address and port, and the own port.
    using Name = std::tuple<std::string, int, int>;

    // A socket was made, or is to be closed, which the caller does.
    void opened(int socket) { unnamed_.push_back(socket); }
    void closing(int socket);
    // Notes that the peer answers with HTTP/1.1: the connection may carry another exchange. No effect for an
    // empty name, and if the connection has ended.
    void keep(const Name& name);
    // Notes that the peer closes the connection after that time without an exchange. No effect unless kept.
    void limitIdleTime(const Name& name, std::chrono::seconds limit);
    // An exchange on the connection has ended.
    void released(const Name& name);

    // Whether the connection was kept.
    bool isKept(const Name& name) const { return kept_.contains(name); }
    // Whether a kept connection has input or its end, or has been idle for most of its time.
    bool isAtItsEnd(const Name& name) const;

  private:
    struct Kept {
        int socket;
        std::chrono::milliseconds usableIdleTime = std::chrono::hours(24);
        std::chrono::steady_clock::time_point released = {};
    };

    std::vector<int> unnamed_;
    std::map<Name, Kept> kept_;
};

}  // namespace telvora
