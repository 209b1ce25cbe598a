// SPDX-License-Identifier: Apache-2.0
#include "load.h"

#include <sys/prctl.h>

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <thread>

#include "telvora/keys.h"
#include "tests/support/await.h"
#include "world.h"

namespace telvora::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint16_t kCategories = 4;

Dictionary payload(std::span<const RecordEntry> record, uint64_t number) {
    Dictionary payload{{kNumberKey, number}};
    for (const auto& [key, value] : record)
        payload.set(key, std::visit([](auto plain) { return PropertyList(plain); }, value));
    return payload;
}

}  // namespace

// sendNext() and acknowledged() run on the runtime's thread.
class Load::Client {
  public:
    Client(Load& load, ClientRuntime& runtime, const std::string& socketPath, uint64_t sessionID)
        : load_(load),
          session_(openSession(runtime, socketPath, {{kTelvoraSessionInfoSessionID, sessionID}})) {
        latencies_.reserve(load.options_.reports / load.options_.clients + 1);
    }

    void sendNext() {
        const uint64_t number = load_.nextNumber_.fetch_add(1, std::memory_order_relaxed);
        if (number < load_.options_.reports) send(number, Clock::now());
    }

    void send(uint64_t number, Clock::time_point due) {
        session_->sendMessage(static_cast<uint16_t>(1 + number % kCategories), 1,
                              payload(load_.options_.record, number), [this, due](const auto& answer) {
                                  if (!answer) return load_.failed(answer.error().message);
                                  acknowledged(due);
                              });
    }

    void flush() {
        test::await<FlushAnswer>([&](auto done) { session_->flushMessages(std::move(done)); });
    }

    const std::vector<uint32_t>& latencies() const { return latencies_; }

  private:
    void acknowledged(Clock::time_point due) {
        const auto latency = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - due);
        latencies_.push_back(static_cast<uint32_t>(latency.count()));
        if (load_.unacknowledged_.fetch_sub(1) == 1) return load_.done_.set_value();
        if (load_.options_.rate == 0) sendNext();
    }

    Load& load_;
    std::unique_ptr<ClientSession> session_;
    std::vector<uint32_t> latencies_;
};

Load::Load(const LoadOptions& options) : options_(options), unacknowledged_(options.reports) {
    for (size_t i = 0; i < options.threads; ++i)
        runtimes_.push_back(std::make_unique<ClientRuntime>());
}

Load::~Load() = default;

void Load::open(const std::string& socketPath) {
    for (size_t i = 0; i < options_.clients; ++i) {
        clients_.push_back(std::make_unique<Client>(*this, *runtimes_[i % runtimes_.size()], socketPath, i));
    }
}

void Load::run() {
    const auto begin = Clock::now();
    if (options_.rate > 0) {
        sendOnSchedule();
    } else {
        for (size_t i = 0; i < options_.window; ++i) {
            for (const auto& client : clients_)
                client->sendNext();
        }
    }
    done_.get_future().get();
    duration_ = Clock::now() - begin;
    for (const auto& client : clients_) {
        latencies_.insert(latencies_.end(), client->latencies().begin(), client->latencies().end());
    }
    std::sort(latencies_.begin(), latencies_.end());
}

void Load::sendOnSchedule() {
    prctl(PR_SET_TIMERSLACK, 1UL);  // the default delays each report by up to 50 µs
    const auto begin = Clock::now();
    for (uint64_t number = 0; number < options_.reports && !failed_; ++number) {
        const std::chrono::duration<double> offset(static_cast<double>(number) / options_.rate);
        const auto due = begin + std::chrono::duration_cast<Clock::duration>(offset);
        std::this_thread::sleep_until(due);
        clients_[number % clients_.size()]->send(number, due);
    }
}

void Load::flush() {
    for (const auto& client : clients_)
        client->flush();
}

void Load::failed(const std::string& reason) {
    if (!failed_.exchange(true)) {
        done_.set_exception(std::make_exception_ptr(std::runtime_error("a report failed: " + reason)));
    }
}

double Load::latencyMicroseconds(double share) const {
    if (latencies_.empty()) return 0;
    const auto index = static_cast<size_t>(share * static_cast<double>(latencies_.size() - 1));
    return latencies_[index];
}

}  // namespace telvora::bench
