// SPDX-License-Identifier: Apache-2.0
//
// What the daemon knows of the device and of itself, and the stable identifiers made from it. One object for
// the life of the process; every operation is callable from any thread.
#pragma once

#include <array>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/device_properties.h"
#include "platform/user_defaults.h"
#include "plist/property_list.h"

namespace telvora {

// Where the user's consent stands, as the boolean "Enabled".
inline constexpr std::string_view kConsentDomain = "com.zandor.diagnosticsharing";
inline constexpr std::string_view kConsentKey = "Enabled";

// A zero-terminated device ID of at most 40 bytes; all zero when the device has none.
using DeviceIDBuffer = std::array<char, 41>;

class DeviceIdentity {
  public:
    // Both must outlive the identity.
    DeviceIdentity(const DeviceProperties& properties, UserDefaults& defaults);

    // The device property service's answers; nothing when it gives none.
    std::optional<std::string> productVersion() const { return properties_.answer("ProductVersion"); }
    std::optional<std::string> buildVersion() const { return properties_.answer("BuildVersion"); }
    std::optional<std::string> productType() const { return properties_.answer("ProductType"); }
    std::optional<std::string> deviceName() const { return properties_.answer("DeviceName"); }
    std::optional<std::string> hardwareModel() const { return properties_.answer("HWModelStr"); }
    std::optional<std::string> serialNumber() const { return properties_.answer("SerialNumber"); }

    // Copies "UniqueDeviceID" with its terminator into the buffer. An answer of more than 40 bytes is left
    // out, not truncated; then, as without an answer, the buffer stays as it was.
    void copyUniqueDeviceID(DeviceIDBuffer& buffer) const;

    // Whether "ReleaseType" is "Internal"; computed once.
    bool isInternal() const { return isInternal_; }

    // A random UUID made once per process.
    const std::string& processIdentifier() const { return processIdentifier_; }

    // A persistent UUID for a client identifier and a suffix (absent counts as empty), kept under the user
    // default "uuid:CLIENT:SUFFIX". Made on first use and never rotated. Logs it at level 6.
    std::string getPersistentIdentifierForCustomClientIDSuffix(
        const std::optional<std::string>& clientIdentifier, const std::optional<std::string>& suffix) const;

    // The two persistent UUIDs of the device, one for reports that respect the diagnostics consent (true) and
    // one for those that override it (false); never equal, so that the two kinds of reports can't be joined.
    std::string getPersistentIdentifierForDNU(bool respectsConsent) const;

    // Whether a key of the user defaults is that of one of these persistent identifiers.
    static bool isIdentifierKey(std::string_view key);

    // Whether the user shares diagnostics: boolean "Enabled" in "com.zandor.diagnosticsharing"; absent means
    // no.
    bool diagnosticsConsent() const;

  private:
    std::string persistentIdentifier(const std::string& key) const;

    const DeviceProperties& properties_;
    UserDefaults& defaults_;
    const bool isInternal_;
    const std::string processIdentifier_;
    mutable Mutex identifierMutex_{
        LockRank::identifiers};  // makes read-then-create of an identifier one step
};

// "client:service", both in lower case, an absent name empty.
std::string clientIdentifierForUserInfo(const Dictionary& userInfo);

}  // namespace telvora
