// SPDX-License-Identifier: Apache-2.0
//
// The identity of the device and the process, and stable identifiers made from it. One object for the life of
// the process; every operation is callable from any thread.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/device_properties.h"
#include "platform/known_settings.h"
#include "platform/user_defaults.h"
#include "plist/property_list.h"
#include "util/mutex.h"

namespace telvora {

// The preference domain of the identifiers that the daemon has made. Names from clients are part of its keys,
// so it is apart from the settings, and bounded: a further identifier is made, but not kept. Earlier versions
// kept them in kTelvoraDefaultsDomain.
inline constexpr std::string_view kIdentifiersDomain = "com.zandor.telvora.identifiers";
inline constexpr size_t kMaxIdentifierKeyBytes = 512;
inline constexpr size_t kMaxIdentifiersOfUser = 256;
inline constexpr size_t kMaxIdentifiers = 4096;

// A zero-terminated device ID of at most 40 bytes; all zero if the device has no ID.
using DeviceIDBuffer = std::array<char, 41>;

// Answers of the device property service that reports carry; absent without an answer.
struct DeviceTexts {
    std::optional<std::string> name = {};
    std::optional<std::string> osVersion = {};
    std::optional<std::string> build = {};
    std::optional<std::string> hardwareType = {};
};

class DeviceIdentity {
  public:
    // Both must outlive the identity.
    DeviceIdentity(const DeviceProperties& properties, UserDefaults& defaults);

    // The answers of the device property service; std::nullopt without an answer.
    std::optional<std::string> productVersion() const { return properties_.answer("ProductVersion"); }
    std::optional<std::string> buildVersion() const { return properties_.answer("BuildVersion"); }
    std::optional<std::string> productType() const { return properties_.answer("ProductType"); }
    std::optional<std::string> deviceName() const { return properties_.answer("DeviceName"); }
    std::optional<std::string> hardwareModel() const { return properties_.answer("HWModelStr"); }
    std::optional<std::string> serialNumber() const { return properties_.answer("SerialNumber"); }

    // Those of reports, asked for once. All sessions share them. Not null.
    const std::shared_ptr<const DeviceTexts>& texts() const { return texts_; }

    // The country: "CountryCode" of device.plist if that is a country code, else the territory of the locale
    // (locale.h). Read at each call.
    std::optional<std::string> countryCode() const;

    // Copies "UniqueDeviceID" with its terminator into the buffer. An answer of more than 40 bytes is not
    // truncated: it is ignored, and the buffer stays unchanged, as it does without an answer.
    void copyUniqueDeviceID(DeviceIDBuffer& buffer) const;

    // Whether "ReleaseType" is "Internal"; computed once.
    bool isInternal() const { return isInternal_; }

    // A random UUID of this process.
    const std::string& processIdentifier() const { return processIdentifier_; }

    // A persistent UUID for a client identifier and a suffix (absent counts as empty), stored under
    // "uuid:CLIENT:SUFFIX". Created on first use and never rotated. Logs it at level 6. `user`: the one whose
    // client asks; a new identifier counts against its bound. An identifier over a bound is random at each
    // call, and logged at level 3.
    std::string getPersistentIdentifierForCustomClientIDSuffix(
        const std::optional<std::string>& clientIdentifier, const std::optional<std::string>& suffix,
        std::optional<uid_t> user = std::nullopt) const;

    // The two persistent UUIDs of the device: one for reports that respect the diagnostics consent (true),
    // and one for those that override it (false). They differ, so that the two kinds of reports can't be
    // joined.
    std::string getPersistentIdentifierForDNU(bool respectsConsent) const;
    // The same; all callers share it until it changes.
    std::shared_ptr<const std::string> sharedIdentifierForDNU(bool respectsConsent) const
        TELVORA_EXCLUDES(identifierMutex_, sharedMutex_);

    // Whether a key of the user defaults belongs to one of these persistent identifiers.
    static bool isIdentifierKey(std::string_view key);

    // Whether the user shares diagnostics; an absent setting means no.
    bool diagnosticsConsent() const;

  private:
    std::string persistentIdentifier(const std::string& key, std::optional<uid_t> user) const;
    std::optional<std::string> keptIdentifier(const std::string& key) const;
    void carryOver() const TELVORA_REQUIRES(identifierMutex_);

    const DeviceProperties& properties_;
    UserDefaults& defaults_;
    const bool isInternal_;
    const std::string processIdentifier_;
    const std::shared_ptr<const DeviceTexts> texts_;
    mutable Mutex identifierMutex_{
        LockRank::identifiers};  // of creating an identifier, which waits for a disk
    mutable std::atomic<bool> carriedOver_ = false;
    mutable Mutex sharedMutex_;
    mutable std::shared_ptr<const std::string> shared_[2] TELVORA_GUARDED_BY(sharedMutex_);
};

// "client:service", both in lower case; an absent name is empty.
std::string clientIdentifierForUserInfo(const Dictionary& userInfo);

}  // namespace telvora
