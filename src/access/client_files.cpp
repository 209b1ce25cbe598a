// SPDX-License-Identifier: Apache-2.0
#include "access/client_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <system_error>

#include "util/error_text.h"

namespace telvora {

namespace {

using std::filesystem::path;

tl::unexpected<std::string> refusal(const char* reason) {
    return tl::unexpected(std::string(reason));
}

tl::unexpected<std::string> failure(const char* what) {
    return tl::unexpected(errorText(what, errno));
}

tl::unexpected<FileRefusal> refused(tl::unexpected<std::string> reason, bool isRegularFile = false) {
    return tl::unexpected(FileRefusal{std::move(reason.value()), isRegularFile});
}

bool isSameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

ClientFiles::ClientFiles(std::shared_ptr<const Peer> client, const std::vector<path>& uploadDirectories,
                         UploadAdmission& admission, QuotaUser user)
    : client_(std::move(client)),
      directories_(uploadDirectories),
      admission_(admission),
      user_(std::move(user)) {}

tl::expected<std::string, std::string> ClientFiles::issueFileExtension(std::string filePath, UniqueFd file) {
    QuotaCharge charge;
    if (!user_.take(Quota::extensionTokens, 1, charge)) return refusal("Too many extensions are unused");
    return extensions_.issue(std::move(filePath), std::move(file), std::move(charge));
}

tl::expected<ClientFile, FileRefusal> ClientFiles::open(const std::string& filePath,
                                                        const std::string& extensionToken) {
    ClientFile opened{filePath, extensions_.consume(extensionToken, filePath), {}};
    if (!opened.file) {
        tl::expected<UniqueFd, FileRefusal> found = openByPath(opened.path);
        if (!found) return tl::unexpected(std::move(found.error()));
        opened.file = std::move(*found);
    }
    if (fstat(opened.file.get(), &opened.status) != 0) return refused(failure("can't examine the file"));
    if (!S_ISREG(opened.status.st_mode)) return refused(refusal("not a regular file"));
    return opened;
}

// The file is examined before it is opened, because opening some devices has effects, and again afterwards,
// because another file may have taken its place.
tl::expected<UniqueFd, FileRefusal> ClientFiles::openByPath(const path& filePath) const {
    const auto mayRead = [this](const struct stat& status) {
        return S_ISREG(status.st_mode) && status.st_uid == client_->uid && mayAccess(status, R_OK);
    };
    if (!isUpload(filePath)) return refused(refusal("no valid extension, and not in a directory of uploads"));
    const auto parent = openParent(filePath);
    if (!parent) return refused(tl::unexpected(parent.error()));
    struct stat status {};
    if (fstatat(parent->get(), filePath.filename().c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return refused(failure("can't examine the file"));
    }
    if (!S_ISREG(status.st_mode)) return refused(refusal("not a regular file"));
    constexpr bool kIsRegularFile = true;
    if (!mayRead(status))
        return refused(refusal("the client's user does not own it or may not read it"), kIsRegularFile);
    UniqueFd file(openat(parent->get(), filePath.filename().c_str(),
                         O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) return refused(failure("can't open the file"), kIsRegularFile);
    if (fstat(file.get(), &status) != 0 || !mayRead(status))
        return refused(refusal("the file has been replaced"));
    return file;
}

tl::expected<void, std::string> ClientFiles::remove(const ClientFile& file) const {
    if (file.status.st_uid != client_->uid) return refusal("another user's file");
    if (!isUpload(file.path)) return refusal("not in a directory of uploads");
    const auto parent = openParent(file.path);
    if (!parent) return tl::unexpected(parent.error());
    struct stat status {};
    if (fstat(parent->get(), &status) != 0 || !mayAccess(status, W_OK | X_OK)) {
        return refusal("the client's user may not remove files there");
    }
    const std::string name = file.path.filename();
    if (fstatat(parent->get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return failure("can't examine the file");
    }
    if (!isSameFile(status, file.status)) return refusal("another file has taken its name");
    if (status.st_uid != client_->uid) return refusal("another user's file");
    if (unlinkat(parent->get(), name.c_str(), 0) != 0) return failure("can't remove the file");
    return {};
}

// One component at a time: no step follows a link, and each step is one that the client could take.
tl::expected<UniqueFd, std::string> ClientFiles::openParent(const path& filePath) const {
    constexpr int kFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    UniqueFd directory(::open("/", kFlags));
    for (const path& component : filePath.parent_path().relative_path()) {
        directory.reset(openat(directory.get(), component.c_str(), kFlags));
        struct stat status {};
        if (!directory || fstat(directory.get(), &status) != 0 || !mayAccess(status, X_OK)) {
            return refusal("its directory can't be reached by the client");
        }
    }
    return directory;
}

// Whether the path is absolute and normalised, and beneath one of the directories.
bool ClientFiles::isUpload(const path& filePath) const {
    if (!filePath.is_absolute() || filePath.native().size() > PATH_MAX || !filePath.has_filename() ||
        filePath.lexically_normal().native() != filePath.native()) {
        return false;
    }
    return std::any_of(directories_.begin(), directories_.end(), [&](const path& directory) {
        return std::mismatch(directory.begin(), directory.end(), filePath.begin(), filePath.end()).first ==
               directory.end();
    });
}

// Whether the mode bits (inode(7)) grant the client these permissions, as access(2) takes them.
bool ClientFiles::mayAccess(const struct stat& status, mode_t permissions) const {
    if (client_->uid == 0) return true;
    const bool isInGroup =
        client_->gid == status.st_gid ||
        std::find(client_->groups.begin(), client_->groups.end(), status.st_gid) != client_->groups.end();
    const int shift = client_->uid == status.st_uid ? 6 : isInGroup ? 3 : 0;
    return ((status.st_mode >> shift) & permissions) == permissions;
}

std::vector<path> canonicalDirectories(const std::vector<std::string>& directories) {
    std::vector<path> canonical;
    for (const std::string& directory : directories) {
        if (!path(directory).is_absolute()) continue;
        std::error_code error;
        path resolved = std::filesystem::weakly_canonical(directory, error);
        if (error) continue;
        // A trailing slash would count as a component.
        canonical.push_back(resolved.has_filename() ? resolved : resolved.parent_path());
    }
    return canonical;
}

// Uses pread(2), because the client shares the descriptor's offset. Reads one byte more than expected, to
// find the end without growing the buffer.
tl::expected<std::string, int> readWholeFile(int file, size_t expectedSize, size_t maxSize) try {
    constexpr size_t kMinGrowth = size_t{64} << 10;
    if (expectedSize == 0) return std::string();
    std::string content(std::min(expectedSize, maxSize) + 1, '\0');
    for (size_t length = 0;;) {
        if (length > maxSize) return tl::unexpected(EFBIG);
        if (length == content.size()) {
            content.resize(std::min(maxSize + 1, length + std::max(length / 2, kMinGrowth)));
        }
        const ssize_t count =
            pread(file, content.data() + length, content.size() - length, static_cast<off_t>(length));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return tl::unexpected(errno);
        length += static_cast<size_t>(count);
        if (count == 0) {
            content.resize(length);
            return content;
        }
    }
} catch (const std::bad_alloc&) {
    return tl::unexpected(ENOMEM);
}

}  // namespace telvora
