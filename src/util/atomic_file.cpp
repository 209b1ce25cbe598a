// SPDX-License-Identifier: Apache-2.0
#include "util/atomic_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "util/error_text.h"
#include "util/unique_fd.h"

namespace telvora {

namespace {

tl::unexpected<std::string> failure(const char* operation) {
    return tl::make_unexpected(errorText(operation, errno));
}

bool writeAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(fd, content.data(), content.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        content.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

bool setAttributes(int fd, const FileAttributes& attributes) {
    if (attributes.mode != FileAttributes().mode && fchmod(fd, attributes.mode) != 0) return false;
    if (!attributes.modified) return true;
    const timespec times[] = {{0, UTIME_NOW}, *attributes.modified};
    return futimens(fd, times) == 0;
}

bool syncDirectory(const std::filesystem::path& directory) {
    const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && fsync(fd.get()) == 0;
}

}  // namespace

tl::expected<void, std::string> replaceFile(const std::filesystem::path& path, std::string_view content,
                                            const FileAttributes& attributes) {
    const std::filesystem::path directory = path.has_parent_path() ? path.parent_path() : ".";
    std::string temporary = directory / ".";
    temporary += path.filename().string() + ".XXXXXX";
    const UniqueFd fd(mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd) return failure("can't be created");

    // The confined daemon may change neither modes nor times; its files keep the mode of mkostemp(3).
    const char* failed = !writeAll(fd.get(), content)                   ? "can't be written"
                         : !setAttributes(fd.get(), attributes)         ? "its mode or date can't be set"
                         : fsync(fd.get()) != 0                         ? "can't be synced"
                         : rename(temporary.c_str(), path.c_str()) != 0 ? "can't be replaced"
                                                                        : nullptr;
    if (failed != nullptr) {
        const auto reason = failure(failed);
        unlink(temporary.c_str());
        return reason;
    }
    if (!syncDirectory(directory)) return failure("its directory can't be synced");
    return {};
}

}  // namespace telvora
