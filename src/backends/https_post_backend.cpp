// SPDX-License-Identifier: Apache-2.0
#include "backends/https_post_backend.h"

#include "backends/event_record.h"
#include "platform/known_settings.h"
#include "util/log.h"

namespace telvora {

std::shared_ptr<HTTPSPostBackend> HTTPSPostBackend::make(const BackendServices& services, std::string name,
                                                         BackendProfile profile, SharedIdentity identity) {
    if (profile == nullptr || !identity->productFamily) return nullptr;
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
      uuidOverrideDnu_(services.identity.sharedIdentifierForDNU(false)) {
    policy_.postURL = services.defaults.string(kTelvoraDefaultsDomain, settings::kPostURL.key);
    if (policy_.postURL) {
        policy_.useDefaultPostURL = true;
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(initWithName): Using user default '%s' for postURL",
                    policy_.postURL->c_str());
    }
    policy_.realtimePostURL =
        services.defaults.string(kTelvoraDefaultsDomain, settings::kRealtimePostURL.key);
    if (policy_.realtimePostURL) {
        policy_.useDefaultRealtimePostURL = true;
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(initWithName): Using user default '%s' for realtimePostURL",
                    policy_.realtimePostURL->c_str());
    }
    const std::string* displayURL = profileDictionary()->string("display_url");
    if (displayURL != nullptr) displayURL_ = *displayURL;
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
                                              .productFamily = identity_->productFamily,
                                              .hardwareType = identity_->hardwareType,
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
