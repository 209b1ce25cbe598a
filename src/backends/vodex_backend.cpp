// SPDX-License-Identifier: Apache-2.0
#include "backends/vodex_backend.h"

#include "async/work_pool.h"
#include "backends/vodex_payload.h"
#include "config/client_type.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr char kAdaptorClassName[] = "VodexAdaptor";
constexpr char kForwardingSelector[] = "sendMessageWithMethod:respCode:dict:";

// Calls foreign code, which may block. Catches and logs its exceptions.
template <typename Call>
void callAdaptor(const char* operation, Call call) {
    const BlockingSection blocking;
    try {
        call();
    } catch (...) {
        TELVORA_LOG(kLogError, "VodexBackend(%s): the Vodex adaptor threw an exception", operation);
    }
}

}  // namespace

bool VodexBackend::isClientTypeAllowed(int32_t clientType) {
    const ClientTypeFacts* facts = factsOfClientType(clientType);
    return facts != nullptr && facts->hasMetricsAdaptor;
}

std::shared_ptr<VodexBackend> VodexBackend::make(const BackendServices& services, std::string name,
                                                 BackendProfile profile, SharedIdentity identity) {
    const int32_t clientType = identity->compType;
    TELVORA_LOG(kLogInfo, "VodexBackend(initWithName): Loading Vodex adaptor class for client type %d",
                clientType);
    if (!isClientTypeAllowed(clientType)) {
        TELVORA_LOG(kLogError, "VodexBackend(initWithName): No matching bundle found for client type %d",
                    clientType);
        return nullptr;
    }
    std::shared_ptr<VodexBackend> backend(
        new VodexBackend(services, std::move(name), std::move(profile), std::move(identity)));
    backend->loadAdaptor();
    return backend;
}

void VodexBackend::loadAdaptor() {
    tl::expected<PlugIn, std::string> bundle = PlugIn::load(services_.vodexAdaptorPath);
    if (!bundle) {
        TELVORA_LOG(kLogDebug, "VodexBackend(initWithName): no bundle: %s", bundle.error().c_str());
        return;
    }
    clientBundle_ = std::move(*bundle);
    const auto* found =
        static_cast<const telvora_vodex_adaptor_class*>(clientBundle_->symbol(kAdaptorClassName));
    // Classes of all versions begin with the version; the other members are those of this version.
    if (found == nullptr || found->version != TELVORA_VODEX_ADAPTOR_VERSION || found->create == nullptr) {
        TELVORA_LOG(kLogDebug, "VodexBackend(initWithName): the bundle has no class %s of version %u",
                    kAdaptorClassName, TELVORA_VODEX_ADAPTOR_VERSION);
        return;
    }
    vodexAdaptorClass_ = found;
    callAdaptor("initWithName", [&] { vodexAdaptor_ = found->create(&vodexHost()); });
}

VodexBackend::~VodexBackend() {
    if (vodexAdaptor_ == nullptr || vodexAdaptorClass_->destroy == nullptr) return;
    callAdaptor("dealloc", [this] { vodexAdaptorClass_->destroy(vodexAdaptor_); });
}

std::optional<std::string> VodexBackend::sendMessage(const std::optional<Dictionary>& payload,
                                                     TimeValue /*timestamp*/, uint16_t method,
                                                     uint16_t respCode, EventID /*eventID*/,
                                                     SendFlag /*flag*/) {
    if (vodexAdaptor_ == nullptr || vodexAdaptorClass_->send_message == nullptr) {
        TELVORA_LOG(kLogError,
                    "VodexBackend(sendMessage): Vodex adaptor %s does not respond to forwarding selector %s",
                    vodexAdaptor_ == nullptr ? "(null)" : "<VodexAdaptor>", kForwardingSelector);
        current_.settle(ReportOutcome::noAdaptor);
        return std::nullopt;
    }
    const PropertyList dict = payload.value_or(Dictionary());
    callAdaptor("sendMessage", [&] {
        vodexAdaptorClass_->send_message(vodexAdaptor_, method, respCode,
                                         vodexValue(payload ? &dict : nullptr));
    });
    current_.settle(ReportOutcome::delivered);
    return std::nullopt;
}

}  // namespace telvora
