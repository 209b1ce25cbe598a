// SPDX-License-Identifier: Apache-2.0
#include "dashboard/dashboard_transport.h"

#include <algorithm>
#include <array>
#include <utility>

#include "dashboard/dashboard_datagram.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr std::chrono::milliseconds kTimerLeeway{100};
constexpr std::chrono::milliseconds kLastResortDelay{9500};
constexpr size_t kReceiveBytes = kDashboardHeaderBytes + kDashboardTextBytes;

}  // namespace

std::shared_ptr<DashboardTransport> DashboardTransport::make(std::unique_ptr<NetworkQueue> queue) {
    auto socket = queue->makeUdpSocket();
    if (!socket) {
        TELVORA_LOG(kLogError, "DashboardBackend(initWithName): socket() failed (%d)", socket.error());
        return nullptr;
    }
    return std::shared_ptr<DashboardTransport>(new DashboardTransport(std::move(queue), std::move(*socket)));
}

void DashboardTransport::useReliableUDP() {
    if (const int error = socket_->bindToAnyAddress(); error != 0) {
        TELVORA_LOG(kLogError, "DashboardBackend(useReliableUDP): can't bind socket, %d", error);
        return;
    }
    reliableUDP_ = true;
    hasReadSource_ = socket_->makeReadSource();
    if (!hasReadSource_) {
        TELVORA_LOG(kLogError, "DashboardBackend(useReliableUDP): can't create read source");
    }
}

bool DashboardTransport::connect(const std::string& serverIP, uint16_t serverPort) {
    if (socket_->connect(serverIP, serverPort) == 0) return true;
    TELVORA_LOG(kLogError, "DashboardBackend(initWithName): socket connect() failed.");
    return false;
}

bool DashboardTransport::start(std::chrono::milliseconds period) {
    timer_ = queue_->makeTimer();
    lastResort_ = queue_->makeTimer();
    if (!timer_ || !lastResort_) {
        TELVORA_LOG(kLogError, "DashboardBackend(initWithName): can't create timer source.");
        return false;
    }
    period_ = period;
    phase_ = queue_->now();
    if (hasReadSource_) {
        queue_->post([self = shared_from_this()] { self->waitForAcknowledgement(); });
    }
    return true;
}

void DashboardTransport::send(std::string datagram, uint16_t eventNumber) {
    queue_->post([self = shared_from_this(), datagram = std::move(datagram), eventNumber] {
        self->tryToSendMsg(datagram, eventNumber);
    });
}

void DashboardTransport::cleanup(std::function<void()> whenClosed) {
    queue_->post([self = shared_from_this(), whenClosed = std::move(whenClosed)]() mutable {
        if (whenClosed) self->whenClosed_ = std::move(whenClosed);
        if (self->messageQueue_.empty() || !self->timer_) return self->cleanupSources();
        if (self->cleanupState_ == CleanupState::running) self->cleanupState_ = CleanupState::requested;
    });
}

void DashboardTransport::tryToSendMsg(std::string_view datagram, uint16_t eventNumber) {
    const bool sent = socket_->send(datagram);
    if (sent && !reliableUDP_) return;
    UDPPacketToSend packet(datagram, eventNumber);
    if (sent) packet.state = UDPPacketToSend::State::sent;
    messageQueue_.append(std::move(packet));
    updateTimer();
}

void DashboardTransport::waitForAcknowledgement() {
    if (!hasReadSource_) return;
    socket_->whenReadable([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self || !self->hasReadSource_) return;
        self->processSocketRead();
        self->waitForAcknowledgement();
    });
}

// An acknowledgement is the collector's echo of a datagram's header, or of its beginning up to the event
// number. Only that number is used.
void DashboardTransport::processSocketRead() {
    std::array<char, kReceiveBytes> buffer;
    const size_t length = socket_->receive(buffer);
    if (length < kDashboardEventNumberOffset + 2) return;
    const auto byteAt = [&buffer](size_t offset) { return static_cast<uint8_t>(buffer[offset]); };
    const auto eventNumber = static_cast<uint16_t>(byteAt(kDashboardEventNumberOffset) << 8 |
                                                   byteAt(kDashboardEventNumberOffset + 1));
    if (messageQueue_.acknowledge(eventNumber)) updateTimer();
}

void DashboardTransport::myPeriodicTask() {
    messageQueue_.tick(reliableUDP_, [this](std::string_view datagram) { return socket_->send(datagram); });
    if (cleanupState_ == CleanupState::running) return;
    if (messageQueue_.empty()) {
        TELVORA_LOG(kLogDebug, "DashboardBackend(myPeriodicTask): clean up at myPeriodicTask.");
        cleanupSources();
    } else if (cleanupState_ == CleanupState::requested) {
        cleanupState_ = CleanupState::lastResortScheduled;
        TELVORA_LOG(kLogDebug, "DashboardBackend(myPeriodicTask): scheduled last resort clean-up in %d ms.",
                    static_cast<int>(kLastResortDelay.count()));
        lastResort_->arm(queue_->now() + kLastResortDelay, kTimerLeeway,
                         [self = shared_from_this()] { self->cleanupSources(); });
    }
}

// Arms the timer for the next tick if that tick has work to do, else disarms it.
void DashboardTransport::updateTimer() {
    if (!timer_) return;
    const bool needed = !messageQueue_.empty() || cleanupState_ != CleanupState::running;
    if (needed == timerArmed_) return;
    timerArmed_ = needed;
    if (!needed) return timer_->cancel();
    const SteadyTime tick = phase_ + ((queue_->now() - phase_) / period_ + 1) * period_;
    // A tick that is late by more than half a period would come too close to the next one.
    const std::chrono::nanoseconds leeway = std::min<std::chrono::nanoseconds>(kTimerLeeway, period_ / 2);
    timer_->arm(tick, leeway, [self = shared_from_this()] {
        self->timerArmed_ = false;
        self->myPeriodicTask();
        self->updateTimer();
    });
}

void DashboardTransport::cleanupSources() {
    hasReadSource_ = false;
    timer_.reset();
    lastResort_.reset();
    socket_->close();
    if (const auto closed = std::exchange(whenClosed_, {})) closed();
}

}  // namespace telvora
