// SPDX-License-Identifier: Apache-2.0
//
// DryRun: real backends on a simulated device. Posts end in this object. The tool runs the daemon's own code
// instead of a model of it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "async/virtual_network.h"
#include "policy/decision_trace.h"
#include "session/create_backends.h"
#include "telvora-bag/scenario.h"

namespace telvora::bag {

// The environment of that name or number, or `std::nullopt`.
std::optional<EnvironmentType> environmentNamed(const std::string& nameOrNumber);

// The session's complete user info. Empty if the session has none.
Dictionary userInfoOf(const Scenario& scenario);

class DryRun {
  public:
    // `trace` receives the reasons of the backends' decisions. It must outlive the object.
    DryRun(const Scenario& scenario, DecisionTrace& trace);
    DryRun(const DryRun&) = delete;
    DryRun& operator=(const DryRun&) = delete;

    // The backend that a section with one backend describes, its state not yet updated. Null if the daemon
    // would not make one.
    std::shared_ptr<TelvoraBackend> makeBackend(const std::shared_ptr<const Dictionary>& section);

    // Advances the clock.
    void advance(int32_t seconds) { now_.seconds += seconds; }
    TimeValue now() const { return now_; }

    // Called with each request. The request then succeeds with status 200.
    std::function<void(const HttpRequest& request)> onRequest;

    const DeviceIdentity& identity() const { return identity_; }

  private:
    class Server;

    const Scenario scenario_;
    TimeValue now_;
    const DeviceProperties properties_;
    UserDefaults defaults_;
    const DeviceIdentity identity_;
    const Environment environment_;
    const ClientFramework framework_;
    VirtualNetwork network_;
    std::unique_ptr<HttpClient> server_;
    const BackendServices services_;
};

}  // namespace telvora::bag
