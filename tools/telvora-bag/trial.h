// SPDX-License-Identifier: Apache-2.0
//
// Trial: real backends on a made-up device, whose posts end here. What the daemon would do with a bag is
// found out by having its own code do it.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "async/virtual_network.h"
#include "policy/decision_trace.h"
#include "session/create_backends.h"

namespace telvora::bag {

// A session, its client and the device it runs on. What is absent is unknown there.
struct Circumstances {
    EnvironmentType environment = EnvironmentType::release;
    uint32_t clientType = 0;
    std::optional<std::string> clientName;
    std::optional<std::string> serviceName;
    Dictionary userInfo = {};  // the rest of it
    bool requireUserInfo = true;
    bool batch = false;
    Dictionary device;                   // as in device.plist
    std::optional<std::string> country;  // two capital letters
    bool consent = false;
    double draw = 0;  // the sampling factor, from 0 to 1
    std::string framework = "8.0";
};

// The session's whole user info; empty: it has none.
Dictionary userInfoOf(const Circumstances& circumstances);

class Trial {
  public:
    // `trace` is told why the backends do what they do; it must outlive the trial.
    Trial(const Circumstances& circumstances, DecisionTrace& trace);
    Trial(const Trial&) = delete;
    Trial& operator=(const Trial&) = delete;

    // The backend of a section that names one, its state not yet updated; null when the daemon would not make
    // one.
    std::shared_ptr<TelvoraBackend> makeBackend(const std::shared_ptr<const Dictionary>& section);

    // Lets the clock go on.
    void advance(int32_t seconds) { now_.seconds += seconds; }
    TimeValue now() const { return now_; }

    // Called with every request, which the server accepts.
    std::function<void(const HttpRequest& request)> onRequest;

    const DeviceIdentity& identity() const { return identity_; }

  private:
    class Server;

    const Circumstances circumstances_;
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
