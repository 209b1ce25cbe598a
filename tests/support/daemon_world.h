// SPDX-License-Identifier: Apache-2.0
//
// DaemonWorld: the whole daemon in a test's memory, without the wire: a real agent with real sessions and
// backends on a BackendRig, and connections that record the daemon's calls.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "access/entitlements.h"
#include "config/client_framework.h"
#include "config/storebag_fetcher.h"
#include "daemon/telvorad_agent.h"
#include "tests/support/backend_rig.h"

namespace telvora::test {

// The client's end of one connection.
class FakeConnection final : public ClientConnection {
  public:
    struct Delivered {
        std::shared_ptr<const Dictionary> sessionInfo;
        uint16_t type;
        std::optional<Dictionary> payload;
    };

    void setExportedObject(std::shared_ptr<ClientSessionInterface> session) override {
        session_ = std::move(session);
    }
    void setClientFiles(std::shared_ptr<ClientFiles>) override {}
    void setUser(QuotaUser) override {}
    void setAdmission(Admission admission) override { mayHandle = std::move(admission); }
    void perform(std::function<void()> work) override { work(); }
    void setInvalidationHandler(std::function<void()> handler) override { invalidated_ = std::move(handler); }
    void setGoneHandler(std::function<void()> handler) override { gone_ = std::move(handler); }
    void resume() override { resumed_ = true; }
    // Ends the connection, as its client's end would.
    void invalidate() override;
    void sendMessageToClient(std::shared_ptr<const Dictionary> sessionInfo, double, uint16_t, uint16_t type,
                             std::optional<Dictionary> payload, DeliveryReply done) override {
        deliveries_.push_back({std::move(sessionInfo), type, std::move(payload)});
        if (done) done(Delivery::handedOver);
    }
    std::string description() const override { return "fake"; }

    TelvoradSession& session() const { return static_cast<TelvoradSession&>(*session_); }
    bool resumed() const { return resumed_; }
    const std::vector<Delivered>& deliveries() const { return deliveries_; }

    Admission mayHandle;  // of the agent

  private:
    std::shared_ptr<ClientSessionInterface> session_;
    std::function<void()> invalidated_;
    std::function<void()> gone_;
    bool resumed_ = false;
    std::vector<Delivered> deliveries_;
};

struct FakeIdleTimer final : IdleTimer {
    explicit FakeIdleTimer(bool& running) : runs(running) {}
    void start(std::chrono::milliseconds, std::function<void()>) override { runs = true; }
    void cancel() override { runs = false; }

    bool& runs;
};

class DaemonWorld : public BackendRig {
  public:
    // `deviceProperties` are the only properties of the device.
    explicit DaemonWorld(Dictionary deviceProperties = {{"DeviceName", "phone"}});
    // Ends every connection: a connection and its session hold each other until then.
    ~DaemonWorld() { agent.invalidateAllConnections(); }

    // Sets the inner bag of the bag server's answers. Absent: the server can't be reached.
    void serveBag(std::optional<Dictionary> innerBag);
    // A bag whose only entry lets connectConfigured()'s sessions report, with these changes.
    static Dictionary reportingBag(const Dictionary& changes = {});

    // A connection that the agent has accepted.
    std::shared_ptr<FakeConnection> connect();
    // A connection with a configured session: client type 7, a user, and the hierarchy's token and level if
    // given.
    std::shared_ptr<FakeConnection> connectConfigured(
        uint32_t sessionID, std::optional<std::pair<std::string, int>> hierarchy = {},
        bool aggregates = false);

    // Every event posted so far, in order, from the JSON bodies after decompression.
    std::vector<Dictionary> postedEvents() const;
    size_t bagRequests() const;
    // Whether the daemon would end by and by.
    bool isIdle();

    bool idleTimerRuns = false;
    asio::io_context runLoop;
    ClientFramework framework{directory.path() / "framework"};
    MessageLog messageLog{directory.path() / "logs"};
    UploadAdmission uploads;
    UserQuotas quotas{defaults};
    ReportLedger ledger;
    SessionServices sessionServices{.backendServices = services,
                                    .framework = framework,
                                    .messageLog = messageLog,
                                    .uploadAdmission = uploads,
                                    .ledger = ledger};
    StorebagFetcher fetcher{{http, environment, framework}};
    EntitlementStore entitlements{directory.path() / "config"};
    KeepAliveTransaction keepAlive{runLoop,
                                   {.launchedOnDemand = true,
                                    .inFlight = {},
                                    .onIdle = {},
                                    .timer = std::make_unique<FakeIdleTimer>(idleTimerRuns)}};
    TelvoradAgent agent{{entitlements, fetcher, sessionServices, quotas, keepAlive, services.clock, [] {}}};
};

// Session info of client type 7.
Dictionary sessionInfoFor(uint32_t sessionID, std::optional<std::pair<std::string, int>> hierarchy = {});

}  // namespace telvora::test
