// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace telvora {

// The first `limit` bytes of a small file, such as one of /proc or /sys; nothing when it can't be read.
// Blocks on file I/O.
std::optional<std::string> readSmallFile(const std::filesystem::path& path, size_t limit = 1 << 16);

// The assignments NAME=VALUE of a file in the form of os-release(5) and locale.conf(5): one a line, values
// unquoted or in single or double quotes, with backslash escapes outside single quotes. Lines of any other
// form are skipped; of two assignments to one name the later counts. Empty when the file can't be read.
std::map<std::string, std::string, std::less<>> readEnvironmentFile(const std::filesystem::path& path);

}  // namespace telvora
