// SPDX-License-Identifier: Apache-2.0
#include "session/backend_factory.h"

#include <algorithm>
#include <array>

#include "backends/https_post_backend.h"
#include "backends/joulemark_backend.h"
#include "backends/upload_backend.h"
#include "backends/vodex_backend.h"
#include "dashboard/dashboard_backend.h"
#include "telvora/keys.h"
#include "util/log.h"

namespace telvora {

namespace {

using MakeBackend = std::shared_ptr<TelvoraBackend> (*)(const BackendServices&, const std::string& name,
                                                        BackendProfile, SharedIdentity);

struct BackendClass {
    std::string_view name;
    MakeBackend make;
};

template <typename Backend>
std::shared_ptr<TelvoraBackend> makeBackend(const BackendServices& services, const std::string& name,
                                            BackendProfile profile, SharedIdentity identity) {
    return Backend::make(services, name, std::move(profile), std::move(identity));
}

constexpr std::array<BackendClass, 6> kBackendClasses{{
    {kTelvoraBackendDashboard, makeBackend<DashboardBackend>},
    {kTelvoraBackendUploadServer, makeBackend<UploadBackend>},
    {kTelvoraBackendHTTPPost, makeBackend<HTTPSPostBackend>},
    {kTelvoraBackendHTTPPost2, makeBackend<HTTPSPostBackend>},
    {kTelvoraBackendJoulemark, makeBackend<JoulemarkBackend>},
    {kTelvoraBackendVodex, makeBackend<VodexBackend>},
}};

// The product that ships without the metrics adaptor.
constexpr std::string_view kProductWithoutVodex = "Halcyra";

}  // namespace

std::shared_ptr<TelvoraBackend> newBackendWithName(const BackendServices& services, const std::string& name,
                                                   BackendProfile profile, SharedIdentity identity) {
    const auto* entry = std::find_if(kBackendClasses.begin(), kBackendClasses.end(),
                                     [&name](const BackendClass& c) { return c.name == name; });
    if (entry == kBackendClasses.end() ||
        (entry->name == kTelvoraBackendVodex && services.identity.productType() == kProductWithoutVodex)) {
        TELVORA_LOG(kLogError, "TelvoraBackend(newBackendWithName): %s", name.c_str());
        return nullptr;
    }
    return entry->make(services, name, std::move(profile), std::move(identity));
}

}  // namespace telvora
