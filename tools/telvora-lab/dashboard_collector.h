// SPDX-License-Identifier: Apache-2.0
//
// DashboardCollector: receives the dashboard's datagrams (docs/formats.md) and acknowledges those that ask
// for it, over a network with configurable faults.
//
// All operations are callable from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "telvora-lab/dashboard_decoder.h"
#include "telvora-lab/dashboard_tally.h"
#include "telvora-lab/faulty_link.h"
#include "util/mutex.h"
#include "util/unique_fd.h"

namespace telvora::lab {

struct CollectorOptions {
    std::string address = "127.0.0.1";  // IPv4, to listen on
    uint16_t port = 0;                  // 0: the kernel chooses
    LinkFaults datagrams = {};
    LinkFaults acknowledgements = {};
    bool acknowledge = true;
    uint64_t seed = 1;
    bool keepReports = true;  // for reports(); the tally is kept always
    // Called with every report as it arrives, on the collector's thread.
    std::function<void(const DashboardReport&)> onReport = {};
};

class DashboardCollector {
  public:
    // Listens at once.
    explicit DashboardCollector(CollectorOptions options = {});
    ~DashboardCollector();
    DashboardCollector(const DashboardCollector&) = delete;
    DashboardCollector& operator=(const DashboardCollector&) = delete;

    // 0 when it could not start to listen.
    uint16_t port() const { return port_; }
    bool listening() const { return port_ != 0; }

    // Closes the socket, so that datagrams are refused. Delayed datagrams are lost.
    void refuse();
    // Opens the socket again on the same port. False if the port has been taken meanwhile.
    bool accept();

    // All reports that arrived, in order, with repetitions.
    std::vector<DashboardReport> reports() const;
    // Waits until so many different reports have arrived. False if `timeout` passes first.
    bool waitForReports(size_t distinct, std::chrono::milliseconds timeout) const;
    // The errors of malformed datagrams, one line each, 100 at most.
    std::vector<std::string> problems() const;
    Dictionary summary() const;

  private:
    class Loop;

    // Stores a report. Returns whether it is to be acknowledged.
    bool take(std::string_view datagram) TELVORA_EXCLUDES(mutex_);

    CollectorOptions options_;
    uint16_t port_ = 0;
    mutable Mutex mutex_;
    mutable std::condition_variable_any changed_;
    std::vector<DashboardReport> reports_ TELVORA_GUARDED_BY(mutex_);
    std::vector<std::string> problems_ TELVORA_GUARDED_BY(mutex_);
    DashboardTally tally_ TELVORA_GUARDED_BY(mutex_);
    size_t received_ TELVORA_GUARDED_BY(mutex_) = 0;      // before the link's faults
    size_t acknowledged_ TELVORA_GUARDED_BY(mutex_) = 0;  // after the link's faults
    std::unique_ptr<Loop> loop_;
};

}  // namespace telvora::lab
