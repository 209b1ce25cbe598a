// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/trial.h"

#include "telvora/keys.h"

namespace telvora::bag {

namespace {

// No file exists here and none can be made: settings stay in memory.
constexpr char kNowhere[] = "/proc/nowhere";

// The identifiers of the simulated device and session. They are constant, so that the same reports give the
// same sizes.
constexpr char kSessionID[] = "q3v1cW5nTm9PzB0tYk7uRA==";
constexpr char kIdentifier[] = "6E0C5D0B-3C49-4B7A-9C54-2F1D8A7BE913";
constexpr char kOverridingIdentifier[] = "B94A1F27-08DE-4F63-A1C8-5D7E30926FAB";
constexpr char kCustomIdentifier[] = "1D7F42C6-95B3-4E0A-8D16-C2A9E4508B3F";

constexpr TimeValue kStart{1'767'225'600, 125'000};  // 2026-01-01

// Backends require a device name.
Dictionary withName(Dictionary device) {
    if (device.string("DeviceName") == nullptr) device.set("DeviceName", "device");
    return device;
}

}  // namespace

Dictionary userInfoOf(const Circumstances& circumstances) {
    Dictionary userInfo = circumstances.userInfo;
    if (circumstances.clientName) userInfo.set(kTelvoraUserInfoClientName, *circumstances.clientName);
    if (circumstances.serviceName) userInfo.set(kTelvoraUserInfoServiceName, *circumstances.serviceName);
    return userInfo;
}

class Trial::Server final : public HttpClient {
  public:
    explicit Server(const Trial& trial) : trial_(trial) {}
    void start(HttpRequest request, Completion completion) override {
        if (trial_.onRequest) trial_.onRequest(request);
        completion(HttpResponse{200, {}, {}});
    }

  private:
    const Trial& trial_;
};

Trial::Trial(const Circumstances& circumstances, DecisionTrace& trace)
    : circumstances_(circumstances),
      now_(kStart),
      properties_(withName(circumstances.device)),
      defaults_(kNowhere, kNowhere),
      identity_(properties_, defaults_),
      environment_(defaults_, identity_),
      framework_(ClientFramework::ofVersion(circumstances.framework)),
      server_(std::make_unique<Server>(*this)),
      services_{.http = *server_,
                .identity = identity_,
                .environment = environment_,
                .defaults = defaults_,
                .clock = [this] { return now_; },
                .countryCode = [this] { return circumstances_.country; },
                .timeZoneOffsetSeconds = [] { return 0L; },
                .random = [this] { return circumstances_.draw; },
                .makeNetworkQueue = [this] { return network_.makeQueue(); },
                .trace = &trace},
      factory_(services_) {
    const auto set = [this](std::string_view key, PropertyList value) {
        static_cast<void>(defaults_.set(kTelvoraDefaultsDomain, key, std::move(value)));
    };
    set("environmentType", static_cast<int>(circumstances.environment));
    set("uuidRespectDnu", kIdentifier);
    set("uuidOverrideDnu", kOverridingIdentifier);
    set("uuid:" + circumstances.clientName.value_or("") + ":" + circumstances.serviceName.value_or(""),
        kCustomIdentifier);
    static_cast<void>(defaults_.set("com.zandor.diagnosticsharing", "Enabled", circumstances.consent));
}

std::shared_ptr<TelvoraBackend> Trial::makeBackend(const std::shared_ptr<const Dictionary>& section) {
    const Dictionary sessionInfo{{kTelvoraSessionInfoSessionID, 1},
                                 {kTelvoraSessionInfoClientType, circumstances_.clientType},
                                 {kTelvoraSessionInfoRequireUserInfo, circumstances_.requireUserInfo},
                                 {kTelvoraSessionInfoBatchEvent, circumstances_.batch}};
    Dictionary userInfo = userInfoOf(circumstances_);

    DeviceIDBuffer deviceID{};
    identity_.copyUniqueDeviceID(deviceID);
    const BackendSources sources{factory_, identity_, framework_, services_.clock};
    const auto backends = TelvoradUtil::createBackends(
        sources, section, &sessionInfo,
        userInfo.empty() ? nullptr : std::make_shared<const Dictionary>(std::move(userInfo)), deviceID,
        accounts_);
    if (backends->empty()) return nullptr;
    const auto backend = backends->begin()->second;
    backend->setCombinedSessionIDString(kSessionID);
    return backend;
}

}  // namespace telvora::bag
