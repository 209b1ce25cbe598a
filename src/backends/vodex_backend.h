// SPDX-License-Identifier: Apache-2.0
//
// VodexBackend: hands each report to a metrics adaptor that lives in a shared object of its own. All that is
// known of the adaptor is the path of that object and what telvora/vodex_adaptor.h says.
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
    // Where the adaptor is when no user default says otherwise.
    static constexpr char kBundlePath[] =
        "/System/Library/PrivateFrameworks/PlayLinkServices.framework/Frameworks/PLSPerformance.framework";

    // Nothing, with a line at level 3, for a client type that isClientTypeAllowed() refuses. A backend whose
    // adaptor can't be loaded is made all the same, and drops its reports with a line at level 3 each.
    static std::shared_ptr<VodexBackend> make(const BackendServices& services, std::string name,
                                              BackendProfile profile,
                                              std::optional<std::string> productFamily, int32_t clientType);
    ~VodexBackend() override;

    static bool isClientTypeAllowed(int32_t clientType);

    using TelvoraBackend::sendMessage;
    // Passes payload, method and response code on, and nothing else. Answers nothing.
    std::optional<std::string> sendMessage(const std::optional<Dictionary>& payload, TimeValue timestamp,
                                           uint16_t method, uint16_t respCode, EventID eventID,
                                           SendFlag flag) override;

  private:
    using TelvoraBackend::TelvoraBackend;

    void loadAdaptor();

    std::optional<PlugIn> clientBundle_;
    const telvora_vodex_adaptor_class* vodexAdaptorClass_ = nullptr;  // in the bundle
    void* vodexAdaptor_ = nullptr;                                    // the class's, ended by its destroy
};

}  // namespace telvora
