// SPDX-License-Identifier: Apache-2.0
#include "backends/https_post_backend.h"

#include "util/log.h"

namespace telvora {

std::shared_ptr<HTTPSPostBackend> HTTPSPostBackend::make(const BackendServices& services, std::string name,
                                                         BackendProfile profile,
                                                         std::optional<std::string> productFamily) {
    if (profile == nullptr || !productFamily) return nullptr;
    const auto* settings = profile->getIf<Dictionary>();
    const Array* clients = settings != nullptr ? settings->array("clients") : nullptr;
    if (clients == nullptr) {
        TELVORA_LOG(kLogError, "HTTPSPostBackend(initWithName): can't find the client list.");
        return nullptr;
    }
    return std::shared_ptr<HTTPSPostBackend>(new HTTPSPostBackend(
        services, std::move(name), std::move(profile), std::move(productFamily), *clients));
}

HTTPSPostBackend::HTTPSPostBackend(const BackendServices& services, std::string name, BackendProfile profile,
                                   std::optional<std::string> productFamily, const Array& clients)
    : TelvoraBackend(services, std::move(name), std::move(profile), std::move(productFamily)),
      clients_(clients),
      postURL_(services.defaults.string(kTelvoraDefaultsDomain, "httpsPostURL")),
      realtimePostURL_(services.defaults.string(kTelvoraDefaultsDomain, "httpsRealtimePostURL")),
      useDefaultPostURL_(postURL_.has_value()),
      useDefaultRealtimePostURL_(realtimePostURL_.has_value()),
      dnuEnabled_(services.identity.diagnosticsConsent()),
      forceEventLogging_(services.defaults.boolean(kTelvoraDefaultsDomain, "forceEventLogging")),
      uuidRespectDnu_(services.identity.getPersistentIdentifierForDNU(true)),
      uuidOverrideDnu_(services.identity.getPersistentIdentifierForDNU(false)) {
    if (postURL_) {
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(initWithName): Using user default '%s' for postURL",
                    postURL_->c_str());
    }
    if (realtimePostURL_) {
        TELVORA_LOG(kLogDebug, "HTTPSPostBackend(initWithName): Using user default '%s' for realtimePostURL",
                    realtimePostURL_->c_str());
    }
    const std::string* displayURL = profileDictionary()->string("display_url");
    if (displayURL != nullptr) displayURL_ = *displayURL;
}

HTTPSPostBackend::~HTTPSPostBackend() {
    loseBatch(ReportPlace::sessionEnded);
}

void HTTPSPostBackend::updateState() {
    // Left alone rather than set to what it was: a server's answer or the parent session may be changing it.
    if (immutable_) return decided(Decision::kept);
    setState(updateBackendState());
}

void HTTPSPostBackend::setCorrelatedSessionID(const std::string& combinedSessionID) {
    TelvoraBackend::setCorrelatedSessionID(combinedSessionID);
    for (Dictionary& event : batchedEvents_)
        event.set("_sessionID", combinedSessionID);
}

}  // namespace telvora
