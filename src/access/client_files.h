// SPDX-License-Identifier: Apache-2.0
//
// ClientFiles: the files of one client that the daemon may read and remove on behalf of that client. The
// basic rule: the daemon reads and removes for a client only files that the client itself could read or
// remove.
//
//     read, with an extension      the descriptor that the client had open for reading
//     read without                 a regular file of the client's user in an upload directory, whose path the
//                                  client could walk and which its user may read
//     remove, either way           a file of the client's user in an upload directory and in one that the
//                                  client could write to, under the name that still leads to the file that
//                                  was read
//
// No symbolic link in a path is followed. A file is checked on the descriptor from which it is read. Mode
// bits, not access control lists, decide about directories; the kernel also checks the daemon's own access,
// and so does Landlock (SandboxPaths::readAndRemove).
//
// Belongs to the connection's strand.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <tl/expected.hpp>
#include <vector>

#include "access/file_extensions.h"
#include "access/peer.h"
#include "access/upload_admission.h"
#include "access/user_quotas.h"
#include "util/unique_fd.h"

namespace telvora {

// A regular file that is open for reading.
struct ClientFile {
    std::filesystem::path path;
    UniqueFd file;
    struct stat status {};  // at the time of opening

    uint64_t size() const { return static_cast<uint64_t>(status.st_size); }
};

// The reason why a file was not opened.
struct FileRefusal {
    std::string reason;
    // A regular file that can't be read; false: no regular file, or one that may not be examined.
    bool isRegularFile = false;
};

class ClientFiles {
  public:
    // `uploadDirectories`: absolute and without symbolic links, see canonicalDirectories(). They and
    // `admission` must outlive this object. `user`: its quota counts the extension tokens.
    ClientFiles(std::shared_ptr<const Peer> client,
                const std::vector<std::filesystem::path>& uploadDirectories, UploadAdmission& admission,
                QuotaUser user = {});

    // Takes over `file`, the client's open descriptor of the file at `path`. Returns the extension token with
    // which the client may name the file in open(); fails with the client's mistake.
    tl::expected<std::string, std::string> issueFileExtension(std::string path, UniqueFd file);
    // Invalidates a token and closes its descriptor, unless the token was consumed.
    void releaseExtension(const std::string& token) { extensions_.release(token); }

    // Opens a file: consumes the token if it is valid for this path, otherwise opens the file by its path.
    // Fails with the reason. May block on file I/O.
    tl::expected<ClientFile, FileRefusal> open(const std::string& path, const std::string& extensionToken);

    // Admits an upload of this client's user that needs so many bytes; see UploadAdmission::admit().
    void admit(uint64_t bytes, UploadAdmission::Admitted admitted) {
        admission_.admit(client_->uid, bytes, std::move(admitted));
    }

    // Removes the file's name. Fails with the reason; then the name is unchanged.
    tl::expected<void, std::string> remove(const ClientFile& file) const;

  private:
    tl::expected<UniqueFd, FileRefusal> openByPath(const std::filesystem::path& path) const;
    tl::expected<UniqueFd, std::string> openParent(const std::filesystem::path& path) const;
    bool isUpload(const std::filesystem::path& path) const;
    bool mayAccess(const struct stat& status, mode_t permissions) const;

    const std::shared_ptr<const Peer> client_;
    const std::vector<std::filesystem::path>& directories_;
    UploadAdmission& admission_;
    const QuotaUser user_;
    FileExtensions extensions_;
};

// The absolute paths among these directories, with their current symbolic links resolved.
std::vector<std::filesystem::path> canonicalDirectories(const std::vector<std::string>& directories);

// The whole content of an open regular file, regardless of its offset, even if it grows meanwhile.
// `expectedSize`: its size before; a file of size 0, as those of procfs have, is not read. Fails with an
// error number: EFBIG for more than `maxSize` bytes, ENOMEM, or that of read(2). Blocks.
tl::expected<std::string, int> readWholeFile(int file, size_t expectedSize, size_t maxSize);

}  // namespace telvora
