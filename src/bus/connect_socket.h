// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <tl/expected.hpp>

#include "util/unique_fd.h"

namespace telvora {

// A listener with a full backlog: whether connecting waits for it or fails with EAGAIN.
enum class FullBacklog { kWaits, kFails };

// Connects to the Unix stream socket at `path`. With kFails, the connected socket does not block either.
// Fails with the text of connectErrorText(). Thread-safe.
tl::expected<UniqueFd, std::string> connectToSocket(const std::string& path, FullBacklog fullBacklog);

}  // namespace telvora
