// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/dashboard_collector.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>

namespace telvora::lab {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr size_t kMaxProblems = 100;

sockaddr* generic(sockaddr_in& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

}  // namespace

// The socket and its thread. All members except the constructor and the destructor run on that thread.
class DashboardCollector::Loop {
  public:
    Loop(DashboardCollector& collector, UniqueFd socket)
        : collector_(collector),
          datagramLink_(collector.options_.datagrams, collector.options_.seed),
          acknowledgementLink_(collector.options_.acknowledgements, ~collector.options_.seed),
          socket_(std::move(socket)),
          stop_(eventfd(0, EFD_CLOEXEC)),
          thread_([this] { run(); }) {}

    ~Loop() {
        static_cast<void>(eventfd_write(stop_.get(), 1));
        thread_.join();
    }

  private:
    void run() {
        while (true) {
            pollfd sources[] = {{socket_.get(), POLLIN, 0}, {stop_.get(), POLLIN, 0}};
            if (poll(sources, 2, millisecondsToWait()) < 0) continue;
            if (sources[1].revents != 0) return;
            if (sources[0].revents != 0) receive();
            while (!underWay_.empty() && underWay_.begin()->first <= SteadyClock::now()) {
                const auto arrival = underWay_.extract(underWay_.begin());
                arrival.mapped()();
            }
        }
    }

    int millisecondsToWait() const {
        if (underWay_.empty()) return -1;
        const auto left = underWay_.begin()->first - SteadyClock::now();
        return static_cast<int>(
            std::max<int64_t>(std::chrono::ceil<std::chrono::milliseconds>(left).count(), 0));
    }

    // Runs `arrival` for each copy that the link delivers, after that copy's delay.
    void send(FaultyLink& link, const std::function<void()>& arrival) {
        for (const auto delay : link.transit())
            underWay_.emplace(SteadyClock::now() + delay, arrival);
    }

    void receive() {
        std::string datagram(65536, '\0');
        sockaddr_in sender{};
        socklen_t length = sizeof sender;
        const ssize_t received =
            recvfrom(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT, generic(sender), &length);
        if (received < 0) return;
        datagram.resize(static_cast<size_t>(received));
        {
            MutexLock lock(collector_.mutex_);
            ++collector_.received_;
        }
        send(datagramLink_, [this, datagram = std::move(datagram), sender] { arrive(datagram, sender); });
    }

    void arrive(const std::string& datagram, const sockaddr_in& sender) {
        if (!collector_.take(datagram)) return;
        send(acknowledgementLink_, [this, answer = acknowledgementFor(datagram), to = sender]() mutable {
            sendto(socket_.get(), answer.data(), answer.size(), 0, generic(to), sizeof to);
            MutexLock lock(collector_.mutex_);
            ++collector_.acknowledged_;
        });
    }

    DashboardCollector& collector_;
    FaultyLink datagramLink_;
    FaultyLink acknowledgementLink_;
    UniqueFd socket_;
    UniqueFd stop_;
    std::multimap<SteadyClock::time_point, std::function<void()>> underWay_;
    std::thread thread_;  // last: it uses the others
};

DashboardCollector::DashboardCollector(CollectorOptions options) : options_(std::move(options)) {
    accept();
}

DashboardCollector::~DashboardCollector() = default;

void DashboardCollector::refuse() {
    loop_.reset();
}

bool DashboardCollector::accept() {
    if (loop_) return true;
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_port = htons(port_ != 0 ? port_ : options_.port);
    socklen_t length = sizeof own;
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    // A large receive buffer, so that only the link's faults lose datagrams of a burst.
    const int receiveBytes = 4 << 20;
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &receiveBytes, sizeof receiveBytes);
    if (inet_pton(AF_INET, options_.address.c_str(), &own.sin_addr) != 1 ||
        bind(socket.get(), generic(own), sizeof own) != 0 ||
        getsockname(socket.get(), generic(own), &length) != 0) {
        return false;
    }
    port_ = ntohs(own.sin_port);
    loop_ = std::make_unique<Loop>(*this, std::move(socket));
    return true;
}

bool DashboardCollector::take(std::string_view datagram) {
    auto report = decodeDashboardDatagram(datagram);
    if (report && options_.onReport) options_.onReport(*report);
    MutexLock lock(mutex_);
    if (!report) {
        if (problems_.size() < kMaxProblems) problems_.push_back(report.error());
        return false;
    }
    const bool acknowledge = options_.acknowledge && report->wantsAcknowledgement;
    tally_.count(*report);
    if (options_.keepReports) reports_.push_back(std::move(*report));
    changed_.notify_all();
    return acknowledge;
}

std::vector<DashboardReport> DashboardCollector::reports() const {
    MutexLock lock(mutex_);
    return reports_;
}

bool DashboardCollector::waitForReports(size_t distinct, std::chrono::milliseconds timeout) const {
    const auto deadline = SteadyClock::now() + timeout;
    MutexLock lock(mutex_);
    while (tally_.distinct() < distinct) {
        if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) {
            return tally_.distinct() >= distinct;
        }
    }
    return true;
}

std::vector<std::string> DashboardCollector::problems() const {
    MutexLock lock(mutex_);
    return problems_;
}

Dictionary DashboardCollector::summary() const {
    MutexLock lock(mutex_);
    Dictionary summary = tally_.summary();
    summary.set("received", received_);
    summary.set("acknowledged", acknowledged_);
    summary.set("problems", Array(problems_.begin(), problems_.end()));
    return summary;
}

}  // namespace telvora::lab
