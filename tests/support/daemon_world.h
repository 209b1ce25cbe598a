// SPDX-License-Identifier: Apache-2.0
//
// DaemonWorld: the whole daemon in a test's memory, but for the wire: a real agent with real sessions and
// backends, on a virtual clock, an HTTP client without a network, and connections that only remember what
// they were told.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "backends/backend_factory.h"
#include "config/client_framework.h"
#include "config/environment.h"
#include "config/storebag_fetcher.h"
#include "daemon/telvorad_agent.h"
#include "platform/digest.h"
#include "platform/entitlements.h"
#include "telvora-lab/fake_http_client.h"
#include "telvora-lab/temporary_directory.h"
#include "virtual-network/virtual_network.h"

namespace telvora::test {

// One client's end of the wire.
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
    void setFileExtensionIssuer(std::shared_ptr<FileExtensionIssuer>) override {}
    void setUser(QuotaUser) override {}
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

  private:
    std::shared_ptr<ClientSessionInterface> session_;
    std::function<void()> invalidated_;
    std::function<void()> gone_;
    bool resumed_ = false;
    std::vector<Delivered> deliveries_;
};

class DaemonWorld {
  public:
    // `deviceProperties` are all that the device says of itself.
    explicit DaemonWorld(Dictionary deviceProperties = {{"DeviceName", "phone"}});
    // Ends every connection: a connection and its session hold each other until then.
    ~DaemonWorld() { agent.invalidateAllConnections(); }

    // From now on the bag server answers with this inner bag, signed; nothing: it can't be reached.
    void serveBag(std::optional<Dictionary> innerBag);
    // A bag with one section, "release", and the HTTPS backend "httpPost" in it with this clients entry.
    static Dictionary bagWithClient(Dictionary client);
    // The same with an entry under which connectConfigured()'s sessions report, but for these changes.
    static Dictionary reportingBag(const Dictionary& changes = {});

    // A connection that the agent has let in.
    std::shared_ptr<FakeConnection> connect();
    // The same, configured: client type 7, a user, and the hierarchy's token and level if given.
    std::shared_ptr<FakeConnection> connectConfigured(
        uint32_t sessionID, std::optional<std::pair<std::string, int>> hierarchy = {},
        bool aggregates = false);

    // Every event posted so far, in order, from the JSON bodies (gzip undone).
    std::vector<Dictionary> postedEvents() const;
    size_t bagRequests() const;
    // Whether the daemon would end by and by.
    bool isIdle();

    double now = 1'700'000'000;  // seconds since 1970
    double samplingFactor = 0;   // what every backend draws
    bool idleTimerRuns = false;
    lab::TemporaryDirectory directory;
    lab::FakeHttpClient http;
    VirtualNetwork network;
    asio::io_context runLoop;
    UserDefaults defaults;
    DeviceProperties properties;
    DeviceIdentity identity;
    Environment environment;
    ClientFramework framework;
    MessageLog messageLog;
    UploadAdmission uploads;
    UserQuotas quotas;
    ReportLedger ledger;
    BackendServices backendServices;
    BackendFactory factory;
    SessionServices sessionServices;
    StorebagFetcher fetcher;
    EntitlementStore entitlements;
    KeepAliveTransaction keepAlive;
    TelvoradAgent agent;
};

// Session info of client type 7.
Dictionary sessionInfoFor(uint32_t sessionID, std::optional<std::pair<std::string, int>> hierarchy = {});

}  // namespace telvora::test
