// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "config/client_framework.h"
#include "config/device_identity.h"
#include "config/environment.h"

namespace telvora {

// The keys that describeDevice() adds to the properties of the device.
namespace device {
inline constexpr char kInternalBuild[] = "internalBuild";
inline constexpr char kConsent[] = "consent";
inline constexpr char kEnvironment[] = "environment";
inline constexpr char kBagServer[] = "bagServer";
inline constexpr char kFrameworkVersion[] = "frameworkVersion";
inline constexpr char kCountryCode[] = "countryCode";
}  // namespace device

// The device for administrators: its properties, and all else that bags and reports depend on. Blocks on file
// I/O. Callable from any thread.
Dictionary describeDevice(const DeviceProperties& properties, const DeviceIdentity& identity,
                          const Environment& environment, const ClientFramework& framework);

}  // namespace telvora
