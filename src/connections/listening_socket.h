// SPDX-License-Identifier: Apache-2.0
//
// The Unix stream sockets on which the daemon is reached.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <tl/expected.hpp>

#include "util/unique_fd.h"

namespace telvora {

// A listening socket, non-blocking and close-on-exec. The socket may be moved out of `socket`; the object
// then still owns the name in the file system, and removes it at its end if it made it.
class ListeningSocket {
  public:
    UniqueFd socket;
    bool fromServiceManager = false;

    ListeningSocket() = default;
    ListeningSocket(ListeningSocket&&) noexcept = default;
    ListeningSocket& operator=(ListeningSocket&&) = delete;
    ~ListeningSocket();

  private:
    friend tl::expected<ListeningSocket, std::string> makeListeningSocket(const std::filesystem::path& path);

    std::filesystem::path path_;
    // The file that this object made, if any. It is held open so that its inode number is not reused: by the
    // end, another daemon's file may have the name.
    UniqueFd file_;
};

// A new socket with that name in the file system. Everybody may connect (mode 0666): the credentials of each
// peer decide its rights. A socket that a dead process left there is replaced; a socket that answers, or a
// file of another type, is an error.
tl::expected<ListeningSocket, std::string> makeListeningSocket(const std::filesystem::path& path);

// The sockets that the service manager handed over (sd_listen_fds_with_names(3)): the one whose
// FileDescriptorName= is `otherName`, and the main one, of any other name. Removes the variables from the
// environment, so no other thread may exist. Any other descriptor than at most one listening Unix stream
// socket each is an error.
struct HandedOverSockets {
    std::optional<ListeningSocket> main;
    std::optional<ListeningSocket> other;
};
tl::expected<HandedOverSockets, std::string> takeHandedOverSockets(const std::string& otherName);

// The daemon's sockets: for its clients and for its administrators. Without the latter, which is logged, the
// daemon still serves its clients.
struct Sockets {
    ListeningSocket clients;
    std::optional<ListeningSocket> status;
};

// The sockets that the service manager handed over, or new ones in the runtime directory. Fails with the
// reason. No other thread may exist.
tl::expected<Sockets, std::string> openSockets(const std::filesystem::path& runtimeDirectory);

}  // namespace telvora
