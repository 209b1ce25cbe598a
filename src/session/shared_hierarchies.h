// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include "platform/user_defaults.h"

namespace telvora {

// The user under whom the sessions of `user` form hierarchies. Sessions meet where both their token and this
// user are the same.
//
// It is the user itself, unless the administrator lets users share theirs: the default "sharedHierarchies" is
// an array of arrays of users, by name or number. The first array that names the user counts; all for whom
// that one counts share the hierarchies of the lowest number among them. A value of another form shares
// nothing and is logged at level 4. Blocks on file I/O and the name service, whose servers may take their
// time; callable from any thread.
uid_t hierarchyUserOf(uid_t user, UserDefaults& defaults);

}  // namespace telvora
