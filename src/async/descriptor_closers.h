// SPDX-License-Identifier: Apache-2.0
//
// DescriptorClosers: threads that close the connections and descriptors of peers. close(2) of a descriptor
// that a peer sent can block for as long as the peer chose (a socket with SO_LINGER, a file of a FUSE file
// system), and so can close(2) of a connection that holds unread descriptors. No thread that serves clients
// may do it.
//
// Each user has one line, which one thread at a time works off: a user delays only the own descriptors. The
// number of descriptors of a user is bounded by FdCloser::hasRoom().
//
// All operations are callable from any thread.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "util/unique_fd.h"

namespace telvora {

// Whether the kernel lets the peer of a Unix socket, or the peers of a listening one, send descriptors:
// option SO_PASSRIGHTS, on by default. Without effect before Linux 6.16.
void passDescriptors(int socket, bool pass);

// The most descriptors that one message can bring: SCM_MAX_FD, unix(7).
inline constexpr size_t kMostDescriptorsOfAMessage = 253;

// Room for all of them in a recvmsg(2). With less room, the kernel closes the others on the calling thread.
union ReceivedDescriptors {
    cmsghdr alignment;
    char bytes[CMSG_SPACE(sizeof(int) * kMostDescriptorsOfAMessage)];
};

// The descriptors that recvmsg(2) brought. They are the caller's.
std::vector<int> descriptorsOf(msghdr& message);

class DescriptorClosers {
  public:
    // Descriptors of one user beyond which no connection of the user is read from.
    static constexpr size_t kMaxDescriptorsOfUser = 2048;
    // The most threads: as many users may block at the same time.
    static constexpr size_t kMaxThreads = 64;

    // `close` replaces close(2).
    explicit DescriptorClosers(std::function<void(int fd)> close = {});
    // Threads end once they are not blocked; those of close(2) are not waited for.
    ~DescriptorClosers();
    DescriptorClosers(const DescriptorClosers&) = delete;
    DescriptorClosers& operator=(const DescriptorClosers&) = delete;

    // The closer of the user's connections. It may outlive this object, and leaves the descriptors to the end
    // of the process then.
    std::shared_ptr<FdCloser> of(uid_t user);

  private:
    struct State;
    const std::shared_ptr<State> state_;
};

}  // namespace telvora
