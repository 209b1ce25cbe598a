// SPDX-License-Identifier: Apache-2.0
#include "access/entitlements.h"

#include <algorithm>
#include <string>
#include <system_error>
#include <tl/expected.hpp>
#include <vector>

#include "access/name_service.h"
#include "plist/property_list_format.h"
#include "util/directory_names.h"
#include "util/file_trust.h"
#include "util/log.h"
#include "util/regular_file.h"

namespace telvora {

namespace {

// The conditions and permissions of a file.
struct Grant {
    std::optional<PropertyList> user, group;  // a non-empty string or a number that is an id
    std::optional<std::string> unit, label;
    Dictionary entitlements;
};

tl::expected<Grant, std::string> readGrant(const std::filesystem::path& file) {
    const auto opened = RegularFile::open(file);
    if (!opened) return tl::unexpected(opened.error());
    if (const auto why = whyChangeable(opened->status)) return tl::unexpected(*why);
    const auto document = opened->read(kMaxDocumentBytes + 1).and_then(parsePropertyList);
    if (!document) return tl::unexpected(document.error());
    const auto* dictionary = document->getIf<Dictionary>();
    if (dictionary == nullptr) return tl::unexpected(std::string("not a dictionary"));
    Grant grant;
    bool hasEntitlements = false;
    for (const auto& [key, value] : *dictionary) {
        if ((key == "User" || key == "Group") && isNameOrId(value)) {
            (key == "User" ? grant.user : grant.group) = value;
        } else if ((key == "Unit" || key == "Label") && value.is<std::string>() && isNameOrId(value)) {
            (key == "Unit" ? grant.unit : grant.label) = *value.getIf<std::string>();
        } else if (key == "Entitlements" && value.is<Dictionary>()) {
            grant.entitlements = *value.getIf<Dictionary>();
            hasEntitlements = true;
        } else {
            return tl::unexpected("the key \"" + key + "\" is unknown or its value is not of its type");
        }
    }
    if (!hasEntitlements) return tl::unexpected(std::string("\"Entitlements\" is missing"));
    return grant;
}

// Why the file is not for the peer, by the first condition that does not hold; null if all hold.
const char* whyNotFor(const Grant& grant, const Peer& peer) {
    // Cheap comparisons first: the look-up of a name may ask a server.
    if (grant.unit && *grant.unit != peer.unit) return "its \"Unit\" is another one";
    if (grant.label && *grant.label != peer.label) return "its \"Label\" is another one";
    if (grant.user) {
        const std::optional<uid_t> user = userIdFrom(*grant.user);
        if (!user) return "its \"User\" does not exist";
        if (*user != peer.uid) return "its \"User\" is another one";
    }
    if (!grant.group) return nullptr;
    const std::optional<gid_t> group = groupIdFrom(*grant.group);
    if (!group) return "its \"Group\" does not exist";
    return peer.isInGroup(*group) ? nullptr : "its \"Group\" has not this user";
}

std::vector<std::filesystem::path> filesInOrder(const std::filesystem::path& directory) {
    std::vector<std::filesystem::path> files;
    const auto names = namesIn(directory);
    if (!names) return files;  // an incomplete list could miss a file that revokes
    for (const std::string& name : *names) {
        std::filesystem::path file = directory / name;
        std::error_code ignored;
        if (std::filesystem::is_regular_file(file, ignored)) files.push_back(std::move(file));
    }
    std::sort(files.begin(), files.end(),
              [](const auto& a, const auto& b) { return a.native().compare(b.native()) < 0; });
    return files;
}

}  // namespace

std::optional<PropertyList> EntitlementStore::valueForEntitlement(const Peer& peer, std::string_view name,
                                                                  EntitlementDecision* decision) const {
    const auto passOver = [decision](const std::filesystem::path& file, std::string_view reason) {
        if (decision != nullptr) decision->others.push_back({file, std::string(reason)});
    };
    if (decision != nullptr) decision->directory = directory_;
    std::optional<PropertyList> value;
    const std::vector<std::filesystem::path> files = filesInOrder(directory_);
    if (files.empty()) return value;
    if (const auto why = whyEntriesChangeable(directory_)) {
        TELVORA_LOG(kLogWarning, "EntitlementStore: the files of %s grant no entitlement: %s",
                    directory_.c_str(), why->c_str());
        passOver(directory_ / "*.plist", *why);
        return value;
    }
    for (const std::filesystem::path& file : files) {
        if (file.extension() != ".plist") {
            passOver(file, "its name does not end in .plist");
            continue;
        }
        const auto grant = readGrant(file);
        if (!grant) {
            TELVORA_LOG(kLogWarning, "EntitlementStore: %s grants nothing: %s", file.c_str(),
                        grant.error().c_str());
            passOver(file, grant.error());
            continue;
        }
        const PropertyList* granted = grant->entitlements.find(name);
        const char* const missing = granted != nullptr ? whyNotFor(*grant, peer) : nullptr;
        if (granted == nullptr) {
            passOver(file, "it does not name the entitlement");
        } else if (missing != nullptr) {
            passOver(file, missing);
        } else {
            value = *granted;
            if (decision != nullptr) decision->file = file;
        }
    }
    return value;
}

}  // namespace telvora
