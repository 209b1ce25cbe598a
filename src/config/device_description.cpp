// SPDX-License-Identifier: Apache-2.0
#include "config/device_description.h"

namespace telvora {

Dictionary describeDevice(const DeviceProperties& properties, const DeviceIdentity& identity,
                          const Environment& environment, const ClientFramework& framework) {
    Dictionary all = properties.all();
    all.set(device::kInternalBuild, identity.isInternal());
    all.set(device::kConsent, identity.diagnosticsConsent());
    all.set(device::kEnvironment,
            sectionNameForEnvironment(environment.userDefaultsEnvironment()).value_or("none"));
    all.set(device::kBagServer, environment.storebagBaseURL());
    all.set(device::kFrameworkVersion, framework.bundleVersion());
    if (const auto country = identity.countryCode()) all.set(device::kCountryCode, *country);
    return all;
}

}  // namespace telvora
