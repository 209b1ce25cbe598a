// SPDX-License-Identifier: Apache-2.0
//
// Reading of files that the process expects at a path. All readers of small files use it: a FIFO, a device or
// a directory in the place of the file is refused at once.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <tl/expected.hpp>

#include "util/unique_fd.h"

namespace telvora {

// A regular file that is open for reading.
struct RegularFile {
    UniqueFd fd;
    struct stat status {};  // at the time of opening

    // Opens a file without waiting; symbolic links are followed. Fails with a reason, which is
    // kNotRegular for anything but a regular file.
    static tl::expected<RegularFile, std::string> open(const std::filesystem::path& path);
    static constexpr const char* kNotRegular = "not a regular file";

    // The first `limit` bytes, from the current position. Fails with a reason. Blocks on file I/O.
    tl::expected<std::string, std::string> read(size_t limit) const;
};

// The first `limit` bytes of the regular file at `path`. Fails with a reason. Blocks on file I/O.
// Thread-safe.
tl::expected<std::string, std::string> readRegularFile(const std::filesystem::path& path, size_t limit);

}  // namespace telvora
