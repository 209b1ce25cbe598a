// SPDX-License-Identifier: Apache-2.0
#include "outgoing/outgoing_taps.h"

#include <utility>

namespace telvora {

namespace {

// A larger body is not shown. It would push too many other entries out of the feed.
constexpr size_t kMaxShownBody = size_t{256} << 10;

const char* kindOf(HttpPurpose purpose) {
    switch (purpose) {
        case HttpPurpose::bag:
            return outgoing::kBag;
        case HttpPurpose::report:
            return outgoing::kMessage;
        case HttpPurpose::upload:
            return outgoing::kUpload;
    }
    return "";
}

Dictionary describe(const HttpRequest& request) {
    Dictionary headers;
    for (const auto& [name, value] : request.headers)
        headers.set(name, value);
    Dictionary entry{{outgoing::kKind, kindOf(request.purpose)},
                     {outgoing::kMethod, request.method},
                     {outgoing::kUrl, request.url},
                     {outgoing::kHeaders, std::move(headers)},
                     {outgoing::kSize, static_cast<long long>(request.body.size())}};
    if (request.user) entry.set(outgoing::kUser, static_cast<long long>(*request.user));
    if (request.purpose == HttpPurpose::report && request.body.size() <= kMaxShownBody)
        entry.set(outgoing::kBody, Data{request.body});
    return entry;
}

Dictionary describe(const HttpResult& result) {
    Dictionary entry{{outgoing::kKind, outgoing::kAnswer}};
    if (result) {
        entry.set(outgoing::kStatus, result->status);
    } else {
        entry.set(outgoing::kError, result.error().description);
    }
    return entry;
}

class TappedUdpSocket final : public UdpSocket {
  public:
    TappedUdpSocket(std::unique_ptr<UdpSocket> socket, OutgoingFeed& feed)
        : socket_(std::move(socket)), feed_(feed) {}

    int bindToAnyAddress() override { return socket_->bindToAnyAddress(); }
    bool makeReadSource() override { return socket_->makeReadSource(); }
    int connect(const std::string& address, uint16_t port) override {
        address_ = address;
        port_ = port;
        return socket_->connect(address, port);
    }
    bool send(std::string_view datagram) override {
        const bool sent = socket_->send(datagram);
        if (!feed_.watched()) return sent;
        Dictionary entry{{outgoing::kKind, outgoing::kDatagram},
                         {outgoing::kAddress, address_},
                         {outgoing::kPort, port_},
                         {outgoing::kSize, static_cast<long long>(datagram.size())},
                         {outgoing::kBody, Data{std::string(datagram)}}};
        if (!sent) entry.set(outgoing::kError, "refused by the network");
        feed_.add(std::move(entry));
        return sent;
    }
    size_t receive(std::span<char> buffer) override { return socket_->receive(buffer); }
    void whenReadable(std::function<void()> handler) override { socket_->whenReadable(std::move(handler)); }
    void close() override { socket_->close(); }

  private:
    const std::unique_ptr<UdpSocket> socket_;
    OutgoingFeed& feed_;
    std::string address_;
    uint16_t port_ = 0;
};

class TappedNetworkQueue final : public NetworkQueue {
  public:
    TappedNetworkQueue(std::unique_ptr<NetworkQueue> queue, OutgoingFeed& feed)
        : queue_(std::move(queue)), feed_(feed) {}

    void post(std::function<void()> item) override { queue_->post(std::move(item)); }
    SteadyTime now() const override { return queue_->now(); }
    std::unique_ptr<QueueTimer> makeTimer() override { return queue_->makeTimer(); }
    tl::expected<std::unique_ptr<UdpSocket>, int> makeUdpSocket() override {
        auto socket = queue_->makeUdpSocket();
        if (!socket) return socket;
        return std::make_unique<TappedUdpSocket>(std::move(*socket), feed_);
    }

  private:
    const std::unique_ptr<NetworkQueue> queue_;
    OutgoingFeed& feed_;
};

}  // namespace

void TappedHttpClient::start(HttpRequest request, Completion completion) {
    if (!feed_.watched()) return client_.start(std::move(request), std::move(completion));
    const auto exchange = static_cast<long long>(feed_.nextExchange());
    Dictionary entry = describe(request);
    entry.set(outgoing::kExchange, exchange);
    feed_.add(std::move(entry));
    client_.start(std::move(request),
                  [&feed = feed_, exchange, completion = std::move(completion)](HttpResult result) {
                      Dictionary answer = describe(result);
                      answer.set(outgoing::kExchange, exchange);
                      feed.add(std::move(answer));
                      completion(std::move(result));
                  });
}

std::unique_ptr<NetworkQueue> tapped(std::unique_ptr<NetworkQueue> queue, OutgoingFeed& feed) {
    return std::make_unique<TappedNetworkQueue>(std::move(queue), feed);
}

}  // namespace telvora
