// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace telvora {

// The first `limit` bytes of a small file, such as one of /proc or /sys; std::nullopt if it can't be read.
// Blocks on file I/O.
std::optional<std::string> readSmallFile(const std::filesystem::path& path, size_t limit = 1 << 16);

// The assignments NAME=VALUE of a file in the format of os-release(5) and locale.conf(5): one per line,
// values unquoted or in single or double quotes, with backslash escapes outside single quotes. Other lines
// are skipped; the last assignment to a name wins. Empty if the file can't be read.
std::map<std::string, std::string, std::less<>> readEnvironmentFile(const std::filesystem::path& path);

}  // namespace telvora
