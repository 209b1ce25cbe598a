// SPDX-License-Identifier: Apache-2.0
//
// The Unix stream sockets on which others reach the daemon.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <tl/expected.hpp>

#include "util/unique_fd.h"

namespace telvora {

// A listening socket, non-blocking and close-on-exec. The socket may be moved out of `socket`; the object
// then still owns the name in the file system, which it removes at its end if it made it.
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
    // The file of that name when we made it, else none. It is held open so that its number stays its own:
    // by the end, another daemon's file may go by the name.
    UniqueFd file_;
};

// A new socket with that name in the file system. Everybody may connect (mode 0666): who may do what is
// decided by who the peer is. A socket that a dead process left there is replaced; one that answers, or a
// file of another type, is an error.
tl::expected<ListeningSocket, std::string> makeListeningSocket(const std::filesystem::path& path);

// The sockets that the service manager handed over (sd_listen_fds_with_names(3)): the one whose
// FileDescriptorName= is `otherName`, and the main one, whatever its name. The variables are then removed
// from the environment, so no other thread may exist. Everything else but listening Unix stream sockets, at
// most one each, is an error.
struct HandedOverSockets {
    std::optional<ListeningSocket> main;
    std::optional<ListeningSocket> other;
};
tl::expected<HandedOverSockets, std::string> takeHandedOverSockets(const std::string& otherName);

}  // namespace telvora
