// SPDX-License-Identifier: Apache-2.0
#include "diagnosis/findings.h"

#include "platform/known_settings.h"
#include "platform/locale.h"
#include "protocol/status_keys.h"
#include "util/nearest_word.h"
#include "util/regular_file.h"

namespace telvora {

namespace {

Dictionary entitlementOf(const EntitlementStore& store, const Peer& process) {
    EntitlementDecision decision;
    const auto value = store.valueForEntitlement(process, kClientEntitlement, &decision);
    Array others;
    for (const auto& other : decision.others)
        others.emplace_back(
            Dictionary{{status::kFile, other.file.string()}, {status::kReason, other.reason}});
    Dictionary described{{status::kGranted, value && value->boolValue()},
                         {status::kDirectory, decision.directory.string()},
                         {status::kOthers, std::move(others)}};
    if (!decision.file.empty()) described.set(status::kFile, decision.file.string());
    return described;
}

// The first settings of a domain's file that have no effect.
void addFaults(Array& faults, std::string_view domain, const Dictionary& file, bool isAdministrators) {
    constexpr size_t kMost = 20;
    std::vector<std::string_view> keys;
    for (const Setting* setting : knownSettings())
        if (setting->domain == domain) keys.push_back(setting->key);
    for (const auto& [key, value] : file) {
        const Setting* const setting = findSetting(domain, key);
        std::optional<std::string> reason;
        if (setting != nullptr) {
            reason = whyUnfit(*setting, value);
            if (setting->administratorOnly && !isAdministrators)
                reason = "counts in the administrator's file only";
        } else if (domain == kTelvoraDefaultsDomain && !DeviceIdentity::isIdentifierKey(key)) {
            reason = "is unknown" + suggestion(key, keys);
        }
        if (!reason || faults.size() >= kMost) continue;
        faults.emplace_back(Dictionary{{status::kKey, key}, {status::kReason, *reason}});
    }
}

Array faultsOf(UserDefaults& defaults) {
    Array faults;
    for (const std::string_view domain : {kTelvoraDefaultsDomain, kConsentDomain}) {
        const UserDefaults::Files files = defaults.files(domain);
        for (const auto& [file, reason] : files.faults) {
            faults.emplace_back(
                Dictionary{{status::kKey, file.string()}, {status::kReason, "can't be used: " + reason}});
        }
        addFaults(faults, domain, files.administrator, true);
        addFaults(faults, domain, files.own, false);
    }
    for (PropertyList& fault : unreadableFiles(defaults))
        faults.push_back(std::move(fault));
    const bool hasOutbox = integerSetting(defaults, settings::kOutboxBytes) > 0;
    for (const Setting* setting : {&settings::kHoldOnMetered, &settings::kHoldOnBattery}) {
        if (hasOutbox || !defaults.boolean(setting->domain, setting->key)) continue;
        faults.emplace_back(Dictionary{{status::kKey, std::string(setting->key)},
                                       {status::kReason, "needs an outbox (outboxBytes)"}});
    }
    return faults;
}

}  // namespace

Array unreadableFiles(UserDefaults& defaults) {
    Array faults;
    for (const Setting* setting :
         {&settings::kCaFile, &settings::kClientCertificate, &settings::kClientKey}) {
        const auto value = defaults.administratorValue(setting->domain, setting->key);
        const auto* path = value ? value->getIf<std::string>() : nullptr;
        if (path == nullptr || path->empty()) continue;
        if (const auto file = RegularFile::open(*path); !file) {
            faults.emplace_back(
                Dictionary{{status::kKey, setting->key},
                           {status::kReason, "can't be used: " + *path + ": " + file.error()}});
        }
    }
    return faults;
}

Array publicKeyStatus(const ClientFramework& framework) {
    Array keys;
    for (const PublicKeyFile& key : framework.publicKeyFiles()) {
        Dictionary described{{status::kFile, key.file.string()}};
        if (!key.der.empty()) described.set(status::kFingerprint, key.fingerprint());
        if (key.problem) described.set(status::kProblem, *key.problem);
        keys.emplace_back(std::move(described));
    }
    return keys;
}

Dictionary configurationFindings(const FindingSources& sources, const Peer& process) {
    const Environment& environment = sources.environment;
    Dictionary findings{{status::kEntitlement, entitlementOf(sources.entitlements, process)},
                        {status::kPublicKeys, publicKeyStatus(sources.framework)},
                        {status::kKeyDirectory, sources.directories.framework.string()},
                        {status::kBagServer, environment.storebagBaseURL()},
                        {status::kEnvironment,
                         sectionNameForEnvironment(environment.userDefaultsEnvironment()).value_or("none")},
                        {status::kFramework, sources.framework.bundleVersion()},
                        {status::kConsent, sources.identity.diagnosticsConsent()},
                        {status::kDevice, sources.properties.all()},
                        {status::kFaults, faultsOf(sources.defaults)}};
    if (const auto url = sources.defaults.string(kTelvoraDefaultsDomain, settings::kStorebagURL.key))
        findings.set(status::kBagServerSetting, *url);
    if (const auto code = sources.identity.countryCode()) {
        const auto locales = currentCountry();
        const bool isGiven = sources.properties.answer("CountryCode").has_value() || !locales;
        findings.set(status::kCountry, *code);
        findings.set(status::kCountrySource, isGiven ? "device.plist" : locales->source);
    }
    Dictionary overriding;
    for (const Setting* setting : {&settings::kPostURL, &settings::kRealtimePostURL}) {
        if (const auto url = sources.defaults.string(setting->domain, setting->key))
            overriding.set(setting->key, *url);
    }
    findings.set(status::kSettings, std::move(overriding));
    return findings;
}

Dictionary describe(const Peer& process) {
    Array groups;
    for (const gid_t group : process.groups)
        groups.emplace_back(static_cast<long long>(group));
    return {{status::kUser, static_cast<long long>(process.uid)},
            {status::kGroup, static_cast<long long>(process.gid)},
            {status::kGroups, std::move(groups)},
            {status::kPid, static_cast<long long>(process.pid)},
            {status::kUnit, process.unit},
            {status::kLabel, process.label}};
}

Peer peerIn(const Dictionary& query) {
    const Dictionary* process = query.dictionary(status::kProcess);
    Peer peer;
    if (process == nullptr) {
        peer.uid = peer.gid = UINT32_MAX;
        return peer;
    }
    const auto number = [process](const char* key) {
        return static_cast<uint32_t>(process->integer(key).value_or(UINT32_MAX));
    };
    const auto text = [process](const char* key) {
        const std::string* value = process->string(key);
        return value != nullptr ? *value : std::string();
    };
    peer.pid = static_cast<pid_t>(process->integer(status::kPid).value_or(0));
    peer.uid = number(status::kUser);
    peer.gid = number(status::kGroup);
    peer.unit = text(status::kUnit);
    peer.label = text(status::kLabel);
    const Array* groups = process->array(status::kGroups);
    for (const PropertyList& group : groups != nullptr ? *groups : Array())
        peer.groups.push_back(static_cast<gid_t>(group.integerValue().value_or(UINT32_MAX)));
    return peer;
}

}  // namespace telvora
