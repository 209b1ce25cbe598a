// SPDX-License-Identifier: Apache-2.0
#include "session/shared_hierarchies.h"

#include <algorithm>
#include <set>

#include "access/name_service.h"
#include "async/work_pool.h"
#include "platform/known_settings.h"
#include "util/log.h"

namespace telvora {

namespace {

bool isListOfUsers(const PropertyList& value) {
    const auto* users = value.getIf<Array>();
    return users != nullptr && std::all_of(users->begin(), users->end(), isNameOrId);
}

}  // namespace

uid_t hierarchyUserOf(uid_t user, UserDefaults& defaults) {
    // Read from the administrator's file only, as it gives programs access to other users' reports.
    const auto setting =
        defaults.administratorValue(kTelvoraDefaultsDomain, settings::kSharedHierarchies.key);
    if (!setting) return user;
    const auto* lists = setting->getIf<Array>();
    if (lists == nullptr || !std::all_of(lists->begin(), lists->end(), isListOfUsers)) {
        TELVORA_LOG(kLogWarning, "TelvoradSession: %s shares nothing: it is no array of arrays of users",
                    settings::kSharedHierarchies.key.data());
        return user;
    }
    const BlockingSection lookingUpNames;
    std::set<uid_t> namedBefore;
    for (const PropertyList& list : *lists) {
        std::set<uid_t> sharing;
        for (const PropertyList& named : *list.getIf<Array>()) {
            const std::optional<uid_t> id = userIdFrom(named);
            if (id && !namedBefore.contains(*id)) sharing.insert(*id);
        }
        if (sharing.contains(user)) return *sharing.begin();
        namedBefore.merge(sharing);
    }
    return user;
}

}  // namespace telvora
