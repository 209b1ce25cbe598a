// SPDX-License-Identifier: Apache-2.0
//
// Daemon: the daemon in a confined process. It owns all other objects. A member uses only the members above
// it, except in handlers, which run after the construction.
#pragma once

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <memory>
#include <optional>

#include "access/user_quotas.h"
#include "async/descriptor_closers.h"
#include "backends/report_account.h"
#include "config/client_framework.h"
#include "config/environment.h"
#include "config/storebag_fetcher.h"
#include "connections/listener.h"
#include "connections/listening_socket.h"
#include "daemon/daemon_status.h"
#include "daemon/in_flight_http_client.h"
#include "daemon/keep_alive_transaction.h"
#include "daemon/settings.h"
#include "daemon/shutdown.h"
#include "daemon/status_service.h"
#include "daemon/telvorad_agent.h"
#include "link/link_watch.h"
#include "outbox/stored_outbox.h"
#include "outgoing/outgoing_taps.h"
#include "platform/directories.h"
#include "platform/power_log.h"

namespace telvora {

// The state of the process that main has set up.
struct ProcessContext {
    const Directories& directories;
    UserDefaults& defaults;
    const MessageLog& messageLog;
    const Settings& settings;
    const SandboxStatus& sandbox;
};

class Daemon final : private StatusInterface {
  public:
    // `process` outlives the daemon.
    Daemon(const ProcessContext& process, Sockets sockets);

    // Serves until the shutdown is complete. Ends the process at once if sessions are left at the deadline.
    void run();

  private:
    std::unique_ptr<StoredOutbox> openOutbox();
    std::shared_ptr<LinkWatch> watchLink();
    BackendServices makeBackendServices();
    void serveClient(UniqueFd socket, const Peer& peer);
    bool isNeeded() const;
    void stopAccepting();
    void endSessions();
    bool isIdle() const;
    void reloadOnSignal();
    void logLosses() const;
    void warnWithoutPublicKey() const;
    void warnOfUnreadableFiles() const;
    Dictionary getStatus() override;
    Dictionary getDevice() override;
    void refreshBags(std::function<void(Dictionary bags)> reply) override;
    void diagnose(Dictionary query, FindingsReply reply) override;

    const ProcessContext& process_;
    const StartTime start_;
    asio::io_context runLoop_{1};
    Shutdown shutdown_;  // which the HTTP client and the outbox call for as long as they live

    const DeviceProperties properties_;
    const DeviceIdentity identity_;
    const Environment environment_;
    const ClientFramework framework_;
    const EntitlementStore entitlements_;
    UserQuotas quotas_;
    DescriptorClosers closers_;
    OutgoingFeed outgoing_;
    std::unique_ptr<HttpClient> curl_;
    WorkPool pool_;
    UploadAdmission uploads_;
    const std::unique_ptr<PowerLog> powerLog_;
    ReportLedger ledger_;
    TappedHttpClient tappedHttp_;
    InFlightHttpClient http_;
    const std::unique_ptr<StoredOutbox> outbox_;  // null: there is none
    const std::shared_ptr<LinkWatch> link_;       // null: the link is never spared
    const BackendServices backendServices_;
    const SessionServices sessionServices_;
    const StorebagFetcher fetcher_;
    const KeptBags keptBags_;
    KeepAliveTransaction keepAlive_;
    TelvoradAgent agent_;
    StatusService status_;
    uint64_t connections_ = 0;
    Listener listener_;
    std::optional<Listener> statusListener_;
    asio::signal_set reload_;
};

}  // namespace telvora
