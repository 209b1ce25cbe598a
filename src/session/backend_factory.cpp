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

struct BackendArguments {
    const BackendServices& services;
    const std::string& name;
    BackendProfile profile;
    const std::optional<std::string>& productFamily;
    int32_t clientType;
};

using MakeBackend = std::shared_ptr<TelvoraBackend> (*)(BackendArguments);

struct BackendClass {
    std::string_view name;
    MakeBackend make;
};

template <typename Backend>
std::shared_ptr<TelvoraBackend> makeBackend(BackendArguments arguments) {
    return Backend::make(arguments.services, arguments.name, std::move(arguments.profile),
                         arguments.productFamily);
}

// The one class that the client type matters to.
std::shared_ptr<TelvoraBackend> makeVodexBackend(BackendArguments arguments) {
    return VodexBackend::make(arguments.services, arguments.name, std::move(arguments.profile),
                              arguments.productFamily, arguments.clientType);
}

constexpr std::array<BackendClass, 6> kBackendClasses{{
    {kTelvoraBackendDashboard, makeBackend<DashboardBackend>},
    {kTelvoraBackendUploadServer, makeBackend<UploadBackend>},
    {kTelvoraBackendHTTPPost, makeBackend<HTTPSPostBackend>},
    {kTelvoraBackendHTTPPost2, makeBackend<HTTPSPostBackend>},
    {kTelvoraBackendJoulemark, makeBackend<JoulemarkBackend>},
    {kTelvoraBackendVodex, makeVodexBackend},
}};

// The product that ships without the metrics adaptor.
constexpr std::string_view kProductWithoutVodex = "Halcyra";

}  // namespace

std::shared_ptr<TelvoraBackend> BackendFactory::newBackendWithName(
    const std::string& name, BackendProfile profile, const std::optional<std::string>& productFamily,
    int32_t clientType) const {
    const auto* entry = std::find_if(kBackendClasses.begin(), kBackendClasses.end(),
                                     [&name](const BackendClass& c) { return c.name == name; });
    if (entry == kBackendClasses.end() ||
        (entry->name == kTelvoraBackendVodex && services_.identity.productType() == kProductWithoutVodex)) {
        TELVORA_LOG(kLogError, "TelvoraBackend(newBackendWithName): %s", name.c_str());
        return nullptr;
    }
    return entry->make({services_, name, std::move(profile), productFamily, clientType});
}

}  // namespace telvora
