// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "util/mutex.h"

namespace telvora {

// Held while a session connects: what connecting locks for a moment, libsystemd's tables among it, is then
// free when the process forks, and the child can connect sessions of its own. process_runtime.cpp has fork(2)
// wait for it.
inline Mutex forkLock{LockRank::fork};

}  // namespace telvora
