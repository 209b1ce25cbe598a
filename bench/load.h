// SPDX-License-Identifier: Apache-2.0
//
// The load. Closed loop: each client keeps a window of unacknowledged reports, and sends the next one when
// one is acknowledged. Open loop: reports are sent at a fixed rate, whether or not earlier ones are
// acknowledged.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "client/client_session.h"
#include "record.h"

namespace telvora::bench {

struct LoadOptions {
    uint64_t reports = 200'000;  // over all clients
    size_t clients = 8;
    size_t window = 64;  // unacknowledged reports per client
    size_t threads = 1;  // of the clients
    double rate = 0;     // reports per second over all clients; 0: closed loop
    std::span<const RecordEntry> record = kShortRecord;
};

class Load {
  public:
    explicit Load(const LoadOptions& options);
    ~Load();

    // Opens a session per client and waits until each is configured. Throws std::runtime_error if one is not.
    void open(const std::string& socketPath);
    // Sends all reports, numbered from 0, each once. Returns after the last acknowledgement. Throws if a call
    // fails.
    void run();
    // Flushes all sessions and waits for the answers.
    void flush();

    // The time from the first report's sending to the last acknowledgement.
    std::chrono::duration<double> duration() const { return duration_; }
    // The latency in microseconds that the given share of all reports does not exceed. From sending to
    // acknowledgement; in an open loop from the scheduled time, so that a stall delays all reports that fall
    // due meanwhile. Valid after run().
    double latencyMicroseconds(double share) const;

  private:
    class Client;

    void sendOnSchedule();
    void failed(const std::string& reason);

    const LoadOptions options_;
    std::vector<std::unique_ptr<ClientRuntime>> runtimes_;
    std::vector<std::unique_ptr<Client>> clients_;
    std::atomic<uint64_t> nextNumber_ = 0;
    std::atomic<uint64_t> unacknowledged_;
    std::atomic<bool> failed_ = false;
    std::promise<void> done_;
    std::chrono::duration<double> duration_{};
    std::vector<uint32_t> latencies_;  // of all clients, in microseconds, sorted
};

}  // namespace telvora::bench
