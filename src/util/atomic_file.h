// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

namespace telvora {

struct FileAttributes {
    mode_t mode = 0600;
    std::optional<timespec> modified = std::nullopt;  // absent: now
};

// Replaces the file at `path` atomically: a reader, or a crash at any moment, finds either the
// old content or the new one. Writes a temporary file in the same directory, which must exist, fsync(2)s it,
// rename(2)s it and fsync(2)s the directory. Fails with the reason; then the old file stays and no temporary
// file is left. Blocks on file I/O. Callable from any thread.
tl::expected<void, std::string> replaceFile(const std::filesystem::path& path, std::string_view content,
                                            const FileAttributes& attributes = {});

}  // namespace telvora
