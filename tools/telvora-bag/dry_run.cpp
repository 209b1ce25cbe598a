// SPDX-License-Identifier: Apache-2.0
#include "telvora-bag/dry_run.h"

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

std::optional<EnvironmentType> environmentNamed(const std::string& nameOrNumber) {
    for (const auto type :
         {EnvironmentType::none, EnvironmentType::development, EnvironmentType::zandorInternal,
          EnvironmentType::seed, EnvironmentType::release}) {
        if (nameOrNumber == std::to_string(static_cast<unsigned>(type))) return type;
        if (nameOrNumber == sectionNameForEnvironment(type)) return type;
    }
    return std::nullopt;
}

Dictionary userInfoOf(const Scenario& scenario) {
    Dictionary userInfo = scenario.userInfo;
    if (scenario.clientName) userInfo.set(kTelvoraUserInfoClientName, *scenario.clientName);
    if (scenario.serviceName) userInfo.set(kTelvoraUserInfoServiceName, *scenario.serviceName);
    return userInfo;
}

class DryRun::Server final : public HttpClient {
  public:
    explicit Server(const DryRun& dryRun) : dryRun_(dryRun) {}
    void start(HttpRequest request, Completion completion) override {
        if (dryRun_.onRequest) dryRun_.onRequest(request);
        completion(HttpResponse{200, {}, {}});
    }

  private:
    const DryRun& dryRun_;
};

DryRun::DryRun(const Scenario& scenario, DecisionTrace& trace)
    : scenario_(scenario),
      now_(kStart),
      properties_(withName(scenario.device)),
      defaults_(kNowhere, kNowhere),
      identity_(properties_, defaults_),
      environment_(defaults_, identity_),
      framework_(ClientFramework::ofVersion(scenario.framework)),
      server_(std::make_unique<Server>(*this)),
      services_{.http = *server_,
                .identity = identity_,
                .environment = environment_,
                .defaults = defaults_,
                .clock = [this] { return now_; },
                .countryCode = [this] { return scenario_.country; },
                .timeZoneOffsetSeconds = [] { return 0L; },
                .random = [this] { return scenario_.draw; },
                .makeNetworkQueue = [this] { return network_.makeQueue(); },
                .trace = &trace} {
    const auto set = [this](std::string_view domain, const Dictionary& values) {
        static_cast<void>(defaults_.set(domain, values));
    };
    set(kTelvoraDefaultsDomain, {{"environmentType", static_cast<int>(scenario.environment)}});
    set(kIdentifiersDomain,
        {{"uuidRespectDnu", kIdentifier},
         {"uuidOverrideDnu", kOverridingIdentifier},
         {"uuid:" + scenario.clientName.value_or("") + ":" + scenario.serviceName.value_or(""),
          kCustomIdentifier}});
    set(kConsentDomain, {{std::string(kConsentKey), scenario.consent}});
}

std::shared_ptr<TelvoraBackend> DryRun::makeBackend(const std::shared_ptr<const Dictionary>& section) {
    const Dictionary sessionInfo{{kTelvoraSessionInfoSessionID, 1},
                                 {kTelvoraSessionInfoClientType, scenario_.clientType},
                                 {kTelvoraSessionInfoRequireUserInfo, scenario_.requireUserInfo},
                                 {kTelvoraSessionInfoBatchEvent, scenario_.batch}};
    Dictionary userInfo = userInfoOf(scenario_);

    DeviceIDBuffer deviceID{};
    identity_.copyUniqueDeviceID(deviceID);
    const auto backends = TelvoradUtil::createBackends(
        services_, framework_, section, &sessionInfo,
        userInfo.empty() ? nullptr : std::make_shared<const Dictionary>(std::move(userInfo)), deviceID,
        nullptr);
    if (backends->empty()) return nullptr;
    auto backend = backends->begin()->second;
    backend->setCombinedSessionIDString(kSessionID);
    return backend;
}

}  // namespace telvora::bag
