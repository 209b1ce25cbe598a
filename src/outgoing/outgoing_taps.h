// SPDX-License-Identifier: Apache-2.0
//
// The taps of the OutgoingFeed: every HTTP request and every datagram of the daemon passes one of them.
#pragma once

#include <memory>

#include "async/network_queue.h"
#include "http/http_client.h"
#include "outgoing/outgoing_feed.h"

namespace telvora {

class TappedHttpClient final : public HttpClient {
  public:
    // Both outlive this one, and all exchanges.
    TappedHttpClient(HttpClient& client, OutgoingFeed& feed) : client_(client), feed_(feed) {}

    void start(HttpRequest request, Completion completion) override;
    void stop() override { client_.stop(); }

  private:
    HttpClient& client_;
    OutgoingFeed& feed_;
};

// A queue like `queue`, whose sockets pass their datagrams to the feed, which outlives them.
std::unique_ptr<NetworkQueue> tapped(std::unique_ptr<NetworkQueue> queue, OutgoingFeed& feed);

}  // namespace telvora
