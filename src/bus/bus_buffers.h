// SPDX-License-Identifier: Apache-2.0
//
// What the input and the output of a connection share.
#pragma once

#include <sys/socket.h>

#include <cstddef>

namespace telvora {

// Capacity in bytes that an empty buffer of the input keeps: a connection without traffic holds no more.
inline constexpr size_t kIdleBufferSize = 1024;

// Of one sendmsg(2), and of the descriptors that wait for their message. A sender may put more
// into a message, but no operation here takes so many, and each costs the process one of its own.
inline constexpr size_t kMaxDescriptors = 16;

// The control message of that many descriptors; see cmsg(3).
union DescriptorSpace {
    cmsghdr alignment;
    char bytes[CMSG_SPACE(sizeof(int) * kMaxDescriptors)];
};

}  // namespace telvora
