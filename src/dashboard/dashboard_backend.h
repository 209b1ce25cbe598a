// SPDX-License-Identifier: Apache-2.0
//
// DashboardBackend: turns reports into datagrams for a dashboard collector, and uploads log data over HTTP.
//
// Reports are sent by the five-argument sendMessage() alone. Sessions send through the base class's operation
// with a flag, which ends in the six-argument sendMessage() that this class leaves as it is: a report that a
// session sends meets no datagram and has no answer. That is so on purpose; the two are not to be joined.
//
// A profile ("dashboard" in a bag):
//
//     ip           string, required: the collector's IPv4 address
//     port         number, required: its UDP port, of which the low 16 bits count
//     display_url  string: where people look at the dashboard
//     post_url     string: where log data is uploaded to
//     reliable     number: turns reliable delivery on; the period of the retransmission timer in milliseconds
//                  (values below 1 count as 1)
//
// Like every backend it is called by one caller at a time; its network side has a queue of its own
// (dashboard_transport.h), which lives on until what waits there is sent, given up or cleaned up.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "backends/telvora_backend.h"
#include "dashboard/dashboard_datagram.h"
#include "dashboard/dashboard_transport.h"

namespace telvora {

class DashboardBackend final : public TelvoraBackend {
  public:
    // For a bag's profile. Null, with a line at level 3, without a collector's address or when the system
    // refuses the socket, its connection (as it does for text that is no address) or a timer.
    static std::shared_ptr<DashboardBackend> make(const BackendServices& services, std::string name,
                                                  BackendProfile profile,
                                                  std::optional<std::string> productFamily);
    // Without a profile; delivery is reliable, with a timer of 500 ms. Null likewise, but without an address
    // there is no line.
    static std::shared_ptr<DashboardBackend> make(const BackendServices& services, std::string name,
                                                  std::optional<std::string> serverIP, uint16_t serverPort,
                                                  std::optional<std::string> productFamily);

    using TelvoraBackend::sendMessage;

    // Sends one report as a datagram. Returns it as a line of text (dashboard_datagram.h), or nothing when
    // there is no memory for it.
    std::optional<std::string> sendMessage(const std::optional<Dictionary>& payload, TimeValue timestamp,
                                           uint16_t method, uint16_t respCode, EventID eventID);

    // Closes the socket once nothing waits to be sent again, within bounded time.
    void cleanup() override;
    // The same; `whenClosed` runs when it is done, on a thread of the work pool.
    void cleanup(std::function<void()> whenClosed);

    // Posts the records as a binary property list to the profile's "post_url" and reports the location that
    // the server answers with through the base class's send operation. Blocks until the server has answered.
    bool uploadLogData(const Array& records) override;

  private:
    DashboardBackend(const BackendServices& services, std::string name, BackendProfile profile,
                     std::optional<std::string> productFamily, std::shared_ptr<DashboardTransport> transport)
        : TelvoraBackend(services, std::move(name), std::move(profile), std::move(productFamily)),
          transport_(std::move(transport)) {}

    static std::shared_ptr<DashboardBackend> make(const BackendServices& services, std::string name,
                                                  BackendProfile profile,
                                                  const std::optional<std::string>& serverIP,
                                                  uint16_t serverPort,
                                                  std::optional<std::string> productFamily);

    void takeProfile();
    ReportOutcome postLogData(const Array& records);
    std::string writeLocalLog(const DashboardDatagram& datagram) const {
        return renderDashboardDatagram(datagram);
    }

    const std::shared_ptr<DashboardTransport> transport_;
    bool usingProfile_ = false;
    std::optional<std::string> postURL_;
};

}  // namespace telvora
