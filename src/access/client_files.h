// SPDX-License-Identifier: Apache-2.0
//
// ClientFiles: the files of one client that the daemon may read, and remove, on that client's behalf. The one
// rule behind all the others: a client gets nothing read or removed that it could not itself read or remove.
//
//     read, with an extension      the descriptor that the client had open for reading
//     read, without                a regular file of the client's user in a directory of uploads, whose path
//                                  the client itself could walk, and that its user may read
//     remove, either way           a file of the client's user in a directory of uploads and in one that the
//                                  client itself could write to, under the name that still leads to the
//                                  very file that was read
//
// No symbolic link is followed, anywhere in a path. What a file is gets checked on the descriptor that it is
// read from. The directories' permissions are judged by mode bits, not by access control lists; the kernel
// judges the daemon's own access besides, and so does Landlock (SandboxPaths::readAndRemove).
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
    struct stat status {};  // as it was when the file was taken

    uint64_t size() const { return static_cast<uint64_t>(status.st_size); }
};

// Why a file was not opened.
struct FileRefusal {
    std::string reason;
    bool isRegularFile =
        false;  // one that can't be read; else no regular file, or one that may not be looked at
};

class ClientFiles {
  public:
    // `uploadDirectories`: absolute and without symbolic links, see canonicalDirectories(). `admission`
    // outlives this. `user`: whose extension tokens are counted.
    ClientFiles(Peer client, std::vector<std::filesystem::path> uploadDirectories, UploadAdmission& admission,
                QuotaUser user = {});

    // Takes over `file`, the client's open descriptor of the file at `path`. Returns the extension token with
    // which the client may name the file in open(); fails with the client's mistake.
    tl::expected<std::string, std::string> issueFileExtension(std::string path, UniqueFd file);
    // Makes a token void; the descriptor behind it is closed if nobody has consumed it.
    void releaseExtension(const std::string& token) { extensions_.release(token); }

    // Consumes the token if it is valid for this path, and else looks for the file by its path. Fails with
    // the reason. May block on file I/O.
    tl::expected<ClientFile, FileRefusal> open(const std::string& path, const std::string& extensionToken);

    // A place for an upload of this client's user that takes so many bytes; see UploadAdmission::admit.
    std::unique_ptr<UploadAdmission::Ticket> admit(uint64_t bytes) {
        return admission_.admit(client_.uid, bytes);
    }

    // Removes the file's name. Fails with the reason; then the name is as it was.
    tl::expected<void, std::string> remove(const ClientFile& file) const;

  private:
    tl::expected<UniqueFd, FileRefusal> openByPath(const std::filesystem::path& path) const;
    tl::expected<UniqueFd, std::string> openParent(const std::filesystem::path& path) const;
    bool isUpload(const std::filesystem::path& path) const;
    bool mayAccess(const struct stat& status, mode_t permissions) const;

    const Peer client_;
    const std::vector<std::filesystem::path> directories_;
    UploadAdmission& admission_;
    const QuotaUser user_;
    FileExtensions extensions_;
};

// The absolute ones of these directories, with symbolic links resolved as they are now.
std::vector<std::filesystem::path> canonicalDirectories(const std::vector<std::string>& directories);

// The whole content of an open regular file, wherever its offset stands and even if it grows meanwhile.
// `expectedSize` is its size before; a file of size 0, which those of procfs are too, is not read. Fails with
// an error number: EFBIG when there are more than `maxSize` bytes, ENOMEM, or that of read(2). Blocks.
tl::expected<std::string, int> readWholeFile(int file, size_t expectedSize, size_t maxSize);

}  // namespace telvora
