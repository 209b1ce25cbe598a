// SPDX-License-Identifier: Apache-2.0
//
// Trust in the administrator's files: only root and the daemon's own user may be able to change them. Mode
// bits decide; a write bit of a group also stands for access control lists, whose mask it shows. The daemon's
// own group may write.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>

namespace telvora {

// The reason why another user could change a file or directory of this status; std::nullopt if none could.
std::optional<std::string> whyChangeable(const struct stat& status);

// Likewise for the entries of a directory: examines the directory, and all above it, along the given path and
// without symbolic links. A sticky directory above is trusted, since its entries belong to their owners.
// Blocks on file I/O.
std::optional<std::string> whyEntriesChangeable(const std::filesystem::path& directory);

}  // namespace telvora
