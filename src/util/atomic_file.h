// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

namespace telvora {

// Replaces the file at `path` (mode 0600) so that a reader, or a crash at any moment, meets either the old
// content or the new one: writes a temporary file in the same directory, which must exist, fsync(2)s it,
// rename(2)s it and fsync(2)s the directory. On failure, with its reason, the old file stands and no
// temporary file is left. Blocks on file I/O; callable from any thread.
tl::expected<void, std::string> replaceFile(const std::filesystem::path& path, std::string_view content);

}  // namespace telvora
