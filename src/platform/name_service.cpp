// SPDX-License-Identifier: Apache-2.0
#include "platform/name_service.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <vector>

namespace telvora {

namespace {

constexpr size_t kMaxNameServiceBytes = size_t{1} << 20;

// Looks a name up with getpwnam_r(3) or its sibling, whose buffer has to be big enough for the whole entry.
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

}  // namespace

std::optional<uid_t> userId(const std::string& name) {
    return lookUpId(name, getpwnam_r, &passwd::pw_uid);
}

std::optional<gid_t> groupId(const std::string& name) {
    return lookUpId(name, getgrnam_r, &group::gr_gid);
}

}  // namespace telvora
