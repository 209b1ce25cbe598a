// SPDX-License-Identifier: Apache-2.0
#include "access/name_service.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <limits>
#include <vector>

namespace telvora {

namespace {

constexpr size_t kMaxNameServiceBytes = size_t{1} << 20;

// Looks a name up with getpwnam_r(3) or getgrnam_r(3), growing the buffer until it holds the whole entry.
template <typename Entry, typename LookUp, typename Id>
std::optional<Id> lookUpId(const std::string& name, LookUp lookUp, Id Entry::*id) {
    for (std::vector<char> buffer(1024); buffer.size() <= kMaxNameServiceBytes;
         buffer.resize(buffer.size() * 2)) {
        Entry entry{};
        Entry* found = nullptr;
        const int error = lookUp(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
        if (error == ERANGE) continue;
        if (error != 0 || found == nullptr) return std::nullopt;
        return found->*id;
    }
    return std::nullopt;
}

bool isId(const PropertyList& value) {
    const auto* number = value.getIf<int64_t>();
    // The highest number means "no user" to the kernel.
    return number != nullptr && *number >= 0 && *number < int64_t{std::numeric_limits<uint32_t>::max()};
}

std::optional<uint32_t> idFrom(const PropertyList& value,
                               std::optional<uint32_t> (*lookUp)(const std::string&)) {
    if (isId(value)) return static_cast<uint32_t>(*value.getIf<int64_t>());
    const auto& name = *value.getIf<std::string>();
    if (name.find_first_not_of("0123456789") != std::string::npos) return lookUp(name);
    const PropertyList number(leadingInteger(name));
    return isId(number) ? std::optional<uint32_t>(*number.getIf<int64_t>()) : std::nullopt;
}

}  // namespace

std::optional<uid_t> userId(const std::string& name) {
    return lookUpId(name, getpwnam_r, &passwd::pw_uid);
}

std::optional<gid_t> groupId(const std::string& name) {
    return lookUpId(name, getgrnam_r, &group::gr_gid);
}

bool isNameOrId(const PropertyList& value) {
    const auto* name = value.getIf<std::string>();
    return isId(value) || (name != nullptr && !name->empty() && name->find('\0') == std::string::npos);
}

std::optional<uid_t> userIdFrom(const PropertyList& nameOrId) {
    return idFrom(nameOrId, userId);
}

std::optional<gid_t> groupIdFrom(const PropertyList& nameOrId) {
    return idFrom(nameOrId, groupId);
}

}  // namespace telvora
