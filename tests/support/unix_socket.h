// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "util/unique_fd.h"

namespace telvora::test {

// A Unix socket of that type (with flags) after the operation, bind(2) or connect(2), with the path. Invalid
// if that fails.
inline UniqueFd socketWith(const std::string& path, int type,
                           int (*operation)(int, const sockaddr*, socklen_t)) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    UniqueFd made(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (operation(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) made.reset();
    return made;
}

inline UniqueFd connectedSocket(const std::string& path) {
    return socketWith(path, SOCK_STREAM, connect);
}

// A bound socket; a stream socket listens.
inline UniqueFd boundSocket(const std::string& path, int type) {
    UniqueFd bound = socketWith(path, type, bind);
    EXPECT_TRUE(bound);
    if ((type & SOCK_STREAM) != 0) {
        EXPECT_EQ(listen(bound.get(), 8), 0);
    }
    return bound;
}

}  // namespace telvora::test
