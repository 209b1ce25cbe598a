// SPDX-License-Identifier: Apache-2.0
//
// DashboardBackend: sends reports as datagrams to a dashboard collector, and uploads log data over HTTP.
//
// Only the five-argument sendMessage() sends datagrams. Sessions call the base class's operation with a flag,
// which ends in the six-argument sendMessage() of the base class: a session's report is dropped and has no
// answer. This is intended; the two operations must stay separate.
//
// The profile ("dashboard" in a bag):
//
//     ip           string, required: the collector's IPv4 address
//     port         number, required: its UDP port; the low 16 bits are used
//     display_url  string: URL of the dashboard for people
//     post_url     string: URL for uploads of log data
//     reliable     number: turns reliable delivery on; period of the retransmission timer in milliseconds
//                  (values below 1 count as 1)
//
// The backend belongs to its session's strand. Its transport (dashboard_transport.h) has a queue of its own
// and outlives the backend until its packets are sent, given up or cleaned up.
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
    // Makes a backend from a bag's profile. Null, with a line at level 3, if the profile has no address, or
    // if the system refuses the socket, its connection (also for text that is no address) or a timer.
    static std::shared_ptr<DashboardBackend> make(const BackendServices& services, std::string name,
                                                  BackendProfile profile, SharedIdentity identity);
    // Makes a backend without a profile. Delivery is reliable, with a period of 500 ms. Null as above, but
    // without a line if there is no address.
    static std::shared_ptr<DashboardBackend> make(const BackendServices& services, std::string name,
                                                  std::optional<std::string> serverIP, uint16_t serverPort,
                                                  SharedIdentity identity);

    using TelvoraBackend::sendMessage;

    // Sends one report as a datagram. Returns it as a line of text (dashboard_datagram.h); `std::nullopt` if
    // memory is short.
    std::optional<std::string> sendMessage(const std::optional<Dictionary>& payload, TimeValue timestamp,
                                           uint16_t method, uint16_t respCode, EventID eventID);

    // Closes the socket once no packet waits, within bounded time; see DashboardTransport::cleanup().
    void cleanup() override;
    // As above, and calls `whenClosed` afterwards, on a thread of the work pool.
    void cleanup(std::function<void()> whenClosed);

    // Posts the records as a binary property list to the profile's "post_url". Sends the location in the
    // server's answer as a report, through the base class's operation. Blocks until the server has answered.
    void uploadLogData(const Array& records, const Perform& perform, UploadCompletion done) override;

  private:
    DashboardBackend(const BackendServices& services, std::string name, BackendProfile profile,
                     SharedIdentity identity, std::shared_ptr<DashboardTransport> transport)
        : TelvoraBackend(services, std::move(name), std::move(profile), std::move(identity)),
          transport_(std::move(transport)) {}

    static std::shared_ptr<DashboardBackend> make(const BackendServices& services, std::string name,
                                                  BackendProfile profile,
                                                  const std::optional<std::string>& serverIP,
                                                  uint16_t serverPort, SharedIdentity identity);

    void takeProfile();
    ReportOutcome logDataAnswered(HttpResult result);
    static void finishUpload(InFlightReports& entry, ReportOutcome outcome, const UploadCompletion& done);

    const std::shared_ptr<DashboardTransport> transport_;
    bool usingProfile_ = false;
    std::optional<std::string> postURL_;
};

}  // namespace telvora
