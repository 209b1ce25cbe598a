// SPDX-License-Identifier: Apache-2.0
//
// VodexBackend: passes each report to a metrics adaptor, which a shared object provides through the interface
// of telvora/vodex_adaptor.h.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "backends/telvora_backend.h"
#include "platform/plug_in.h"
#include "telvora/vodex_adaptor.h"

namespace telvora {

class VodexBackend final : public TelvoraBackend {
  public:
    // Default path of the adaptor.
    static constexpr char kBundlePath[] =
        "/System/Library/PrivateFrameworks/PlayLinkServices.framework/Frameworks/PLSPerformance.framework";

    // Null, with a line at level 3, for a client type that isClientTypeAllowed() refuses. If the adaptor
    // can't be loaded, the backend drops each report with a line at level 3.
    static std::shared_ptr<VodexBackend> make(const BackendServices& services, std::string name,
                                              BackendProfile profile, SharedIdentity identity);
    ~VodexBackend() override;

    static bool isClientTypeAllowed(int32_t clientType);

    using TelvoraBackend::sendMessage;
    // Passes payload, method and response code to the adaptor. Returns no answer.
    std::optional<std::string> sendMessage(const std::optional<Dictionary>& payload, TimeValue timestamp,
                                           uint16_t method, uint16_t respCode, EventID eventID,
                                           SendFlag flag) override;

  private:
    using TelvoraBackend::TelvoraBackend;

    void loadAdaptor();

    std::optional<PlugIn> clientBundle_;
    const telvora_vodex_adaptor_class* vodexAdaptorClass_ = nullptr;  // in the bundle
    void* vodexAdaptor_ = nullptr;                                    // an instance of that class
};

}  // namespace telvora
