// SPDX-License-Identifier: Apache-2.0
#include "util/file_trust.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "util/error_text.h"

namespace telvora {

namespace {

std::optional<std::string> whyPathChangeable(const std::filesystem::path& directory) {
    for (std::filesystem::path path = directory; !path.empty(); path = path.parent_path()) {
        struct stat status {};
        if (stat(path.c_str(), &status) != 0) return path.string() + ": " + errorText(errno);
        const bool isSticky = (status.st_mode & S_ISVTX) != 0 && path != directory;
        if (isSticky) status.st_mode &= ~static_cast<mode_t>(S_IWGRP | S_IWOTH);
        if (const auto why = whyChangeable(status)) return path.string() + ": " + *why;
        if (path == path.parent_path()) break;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> whyChangeable(const struct stat& status) {
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        return "user " + std::to_string(status.st_uid) + " owns it";
    }
    if ((status.st_mode & S_IWOTH) != 0) return "every user may write to it";
    if ((status.st_mode & S_IWGRP) != 0 && status.st_gid != getegid()) {
        return "group " + std::to_string(status.st_gid) + " may write to it";
    }
    return std::nullopt;
}

std::optional<std::string> whyEntriesChangeable(const std::filesystem::path& directory) {
    if (auto why = whyPathChangeable(directory)) return why;
    std::error_code error;
    const std::filesystem::path real = std::filesystem::canonical(directory, error);
    if (error) return directory.string() + ": " + error.message();
    return real == directory ? std::nullopt : whyPathChangeable(real);
}

}  // namespace telvora
