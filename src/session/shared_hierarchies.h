// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include "platform/user_defaults.h"

namespace telvora {

// The user under whom the sessions of `user` form hierarchies. Sessions belong to one hierarchy if both their
// token and this user are the same.
//
// It is the user itself, unless the administrator lets users share hierarchies: the user default
// "sharedHierarchies" is an array of arrays of users, by name or number. The first array that names a user
// applies to that user. All users to whom one array applies share the hierarchies of the lowest user ID among
// them. A value of another form is logged at level 4 and ignored. Blocks on file I/O and on the name service,
// which may be slow. Callable from any thread.
uid_t hierarchyUserOf(uid_t user, UserDefaults& defaults);

}  // namespace telvora
