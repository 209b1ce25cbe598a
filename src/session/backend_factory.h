// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "backends/telvora_backend.h"

namespace telvora {

// Makes the backend that the bag key `name` selects. Returns null, with a line at level 3, if the key selects
// no backend, and null if the construction fails; each class documents and logs when it does. `services`
// outlives the backend; `identity` is not null. Callable from any thread.
std::shared_ptr<TelvoraBackend> newBackendWithName(const BackendServices& services, const std::string& name,
                                                   BackendProfile profile, SharedIdentity identity);

}  // namespace telvora
