// SPDX-License-Identifier: Apache-2.0
#include "backends/https_post_backend.h"

#include "backends/event_record.h"
#include "platform/known_settings.h"
#include "util/log.h"

namespace telvora {

namespace {

std::shared_ptr<const std::string> textSetting(UserDefaults& defaults, std::string_view key) {
    auto text = defaults.string(kTelvoraDefaultsDomain, key);
    return text ? std::make_shared<const std::string>(std::move(*text)) : nullptr;
}

}  // namespace

std::shared_ptr<HTTPSPostBackend> HTTPSPostBackend::make(const BackendServices& services, std::string name,
                                                         BackendProfile profile, SharedIdentity identity) {
    if (profile == nullptr || !identity->device->name) return nullptr;
    const auto* settings = profile->getIf<Dictionary>();
    const Array* clients = settings != nullptr ? settings->array("clients") : nullptr;
    if (clients == nullptr) {
        TELVORA_LOG(kLogError, "HTTPSPostBackend(initWithName): can't find the client list.");
        return nullptr;
    }
    return std::shared_ptr<HTTPSPostBackend>(
        new HTTPSPostBackend(services, std::move(name), std::move(profile), std::move(identity), *clients));
}

HTTPSPostBackend::HTTPSPostBackend(const BackendServices& services, std::string name, BackendProfile profile,
                                   SharedIdentity identity, const Array& clients)
    : TelvoraBackend(services, std::move(name), std::move(profile), std::move(identity)),
      clients_(clients),
      dnuEnabled_(services.identity.diagnosticsConsent()),
      forceEventLogging_(services.defaults.boolean(kTelvoraDefaultsDomain, settings::kForceEventLogging.key)),
      uuidRespectDnu_(services.identity.sharedIdentifierForDNU(true)),
      uuidOverrideDnu_(services.identity.sharedIdentifierForDNU(false)),
      defaultPostURL_(textSetting(services.defaults, settings::kPostURL.key)),
      defaultRealtimePostURL_(textSetting(services.defaults, settings::kRealtimePostURL.key)) {
    policy_.postURL = defaultPostURL_.get();
    if (policy_.postURL != nullptr) {
        policy_.useDefaultPostURL = true;
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(initWithName): Using user default '%s' for postURL",
                    policy_.postURL->c_str());
    }
    policy_.realtimePostURL = defaultRealtimePostURL_.get();
    if (policy_.realtimePostURL != nullptr) {
        policy_.useDefaultRealtimePostURL = true;
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(initWithName): Using user default '%s' for realtimePostURL",
                    policy_.realtimePostURL->c_str());
    }
    displayURL_ = profileDictionary()->string("display_url");
}

HTTPSPostBackend::~HTTPSPostBackend() {
    loseBatch(ReportOutcome::sessionEnded);
}

void HTTPSPostBackend::updateState() {
    // The state is not written: a server's answer or the parent session may change it concurrently.
    if (immutable_) {
        if (services_.trace != nullptr) services_.trace->decided(name_, Decision::kept, nullptr, policy_);
        return;
    }
    policy_.samplingThreshold = samplingThreshold();
    policy_ = nextPolicy(std::move(policy_), {.identity = services_.identity,
                                              .countryCode = services_.countryCode,
                                              .trace = services_.trace,
                                              .backend = name_,
                                              .clients = clients_,
                                              .userInfo = userInfoDict_.get(),
                                              .requireUserInfo = identity_->requireUserInfo,
                                              .frameworkVersion = identity_->selfVersion.components,
                                              .samplingFactor = samplingFactor_,
                                              .consent = dnuEnabled_,
                                              .productFamily = identity_->device->name,
                                              .hardwareType = identity_->device->hardwareType,
                                              .user = user_.uid()});
    setSamplingThreshold(policy_.samplingThreshold);
    setState(policy_.state, policy_.decision);
}

void HTTPSPostBackend::setCorrelatedSessionID(const std::string& combinedSessionID) {
    TelvoraBackend::setCorrelatedSessionID(combinedSessionID);
    size_t before = 0;
    size_t after = 0;
    for (Dictionary& event : batchedEvents_) {
        before += approximateSize(event);
        event.set("_sessionID", combinedSessionID);
        after += approximateSize(event);
    }
    if (after <= before) return;
    // A long hierarchy has long IDs.
    if (!chargeBatch(quotaOfBatch(), after - before)) return loseBatch(ReportOutcome::overQuota);
    batchedBytes_ += after - before;
}

}  // namespace telvora
