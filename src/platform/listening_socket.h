// SPDX-License-Identifier: Apache-2.0
//
// The Unix stream socket on which clients reach the daemon.
#pragma once

#include <filesystem>
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
    friend tl::expected<ListeningSocket, std::string> openListeningSocket(const std::filesystem::path&,
                                                                          const std::string&);

    std::filesystem::path path_;
    // The file of that name when we made it, else none. It is held open so that its number stays its own:
    // by the end, another daemon's file may go by the name.
    UniqueFd file_;
};

// The socket that the service manager handed over (sd_listen_fds(3); the variables are then removed from the
// environment, so no other thread may exist), else a new one at <runtimeDirectory>/<serviceName>. Everybody
// may connect (mode 0666): who may do what is decided by entitlement. A socket that a dead process left there
// is replaced; one that answers, or a file of another type, is an error, as is everything else but one
// listening Unix stream socket from the service manager.
tl::expected<ListeningSocket, std::string> openListeningSocket(const std::filesystem::path& runtimeDirectory,
                                                               const std::string& serviceName);

}  // namespace telvora
