// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>
#include <tl/expected.hpp>
#include <vector>

namespace telvora {

// The names of a directory's entries, in no particular order, or the errno of the failure. Throws
// std::bad_alloc without memory, where std::filesystem::directory_iterator ends the process. Callable from
// any thread.
tl::expected<std::vector<std::string>, int> namesIn(const std::filesystem::path& directory);

}  // namespace telvora
