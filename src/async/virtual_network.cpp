// SPDX-License-Identifier: Apache-2.0
#include "async/virtual_network.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <optional>

namespace telvora {

class VirtualTimer final : public QueueTimer {
  public:
    explicit VirtualTimer(VirtualNetwork& network) : network_(network) {}
    ~VirtualTimer() override { VirtualTimer::cancel(); }

    void arm(SteadyTime due, std::chrono::nanoseconds leeway, std::function<void()> handler) override {
        cancel();
        ++network_.armedTimers;
        event_ = network_.add(due + std::min(network_.lateness, leeway),
                              [this, &network = network_, handler = std::move(handler)] {
                                  event_.reset();
                                  --network.armedTimers;
                                  ++network.timerCalls;
                                  handler();  // may destroy the timer
                              });
    }

    void cancel() override {
        if (!event_) return;
        --network_.armedTimers;
        // The event may own the timer.
        const auto event = network_.events_.extract(*std::exchange(event_, std::nullopt));
    }

  private:
    VirtualNetwork& network_;
    std::optional<VirtualNetwork::EventKey> event_;
};

class VirtualSocket final : public UdpSocket {
  public:
    explicit VirtualSocket(VirtualNetwork& network) : network_(network) {
        ++network_.openSockets;
        network_.sockets_.push_back(this);
    }
    ~VirtualSocket() override { VirtualSocket::close(); }

    int bindToAnyAddress() override { return network_.bindError; }
    bool makeReadSource() override { return !network_.readSourceFails; }
    int connect(const std::string& address, uint16_t port) override {
        network_.peers.emplace_back(address, port);
        return network_.connectError;
    }
    bool send(std::string_view datagram) override {
        if (!open_) return false;
        if (network_.onSend) return network_.onSend(datagram);
        network_.sent.emplace_back(datagram);
        return true;
    }
    size_t receive(std::span<char> buffer) override {
        if (inbox_.empty()) return 0;
        const std::string datagram = std::move(inbox_.front());
        inbox_.pop_front();
        const size_t length = std::min(datagram.size(), buffer.size());
        std::memcpy(buffer.data(), datagram.data(), length);
        return length;
    }
    void whenReadable(std::function<void()> handler) override {
        waiting_ = std::move(handler);
        if (!inbox_.empty()) wake();
    }
    void close() override {
        if (!open_) return;
        open_ = false;
        --network_.openSockets;
        std::erase(network_.sockets_, this);
        waiting_ = {};
    }

    void take(const std::string& datagram) {
        if (!waiting_ && inbox_.empty()) return;  // the socket is not being read
        inbox_.push_back(datagram);
        if (waiting_) wake();
    }

  private:
    void wake() { network_.after({}, std::exchange(waiting_, {})); }

    VirtualNetwork& network_;
    bool open_ = true;
    std::deque<std::string> inbox_;
    std::function<void()> waiting_;
};

namespace {

class VirtualQueue final : public NetworkQueue {
  public:
    explicit VirtualQueue(VirtualNetwork& network) : network_(network) {}

    void post(std::function<void()> item) override { network_.after({}, std::move(item)); }
    SteadyTime now() const override { return network_.now(); }
    std::unique_ptr<QueueTimer> makeTimer() override {
        return network_.timerFails ? nullptr : std::make_unique<VirtualTimer>(network_);
    }
    tl::expected<std::unique_ptr<UdpSocket>, int> makeUdpSocket() override {
        if (network_.socketError != 0) return tl::unexpected(network_.socketError);
        return std::make_unique<VirtualSocket>(network_);
    }

  private:
    VirtualNetwork& network_;
};

}  // namespace

VirtualNetwork::~VirtualNetwork() {
    // One by one: destroying one event may cancel another.
    while (!events_.empty()) {
        const auto event = events_.extract(events_.begin());
    }
}

std::unique_ptr<NetworkQueue> VirtualNetwork::makeQueue() {
    return std::make_unique<VirtualQueue>(*this);
}

VirtualNetwork::EventKey VirtualNetwork::add(SteadyTime due, std::function<void()> event) {
    const EventKey key(std::max(due, now_), ++eventCount_);
    events_.emplace(key, std::move(event));
    return key;
}

void VirtualNetwork::after(std::chrono::nanoseconds delay, std::function<void()> event) {
    add(now_ + delay, std::move(event));
}

void VirtualNetwork::runFor(std::chrono::nanoseconds duration) {
    const SteadyTime end = now_ + duration;
    while (!events_.empty() && events_.begin()->first.first <= end) {
        const auto event = events_.extract(events_.begin());
        now_ = event.key().first;
        event.mapped()();
    }
    now_ = end;
}

void VirtualNetwork::deliver(const std::string& datagram) {
    for (VirtualSocket* socket : sockets_)
        socket->take(datagram);
}

}  // namespace telvora
