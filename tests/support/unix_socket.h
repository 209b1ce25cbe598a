// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "util/unique_fd.h"

namespace telvora::test {

// A Unix socket of that type (with flags), bound to the path. A stream socket listens.
inline UniqueFd boundSocket(const std::string& path, int type) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    UniqueFd bound(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(bound.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    if ((type & SOCK_STREAM) != 0) {
        EXPECT_EQ(listen(bound.get(), 8), 0);
    }
    return bound;
}

}  // namespace telvora::test
