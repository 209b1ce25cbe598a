// SPDX-License-Identifier: Apache-2.0
//
// The system calls that are left to a confined process (seccomp(2), through libseccomp).
#pragma once

#include <span>
#include <string>
#include <tl/expected.hpp>

namespace telvora {

// Lets the calling process and the threads that it starts make the system calls named in `plain` with any
// arguments, and these few with arguments that are checked:
//
//     socket, socketpair  Unix sockets, TCP and UDP over IP, and netlink's routing family; no raw sockets
//     open, openat        a file that is opened only for reading is not truncated; openat2(2) does not exist
//     clone               threads only; clone3(2) does not exist, so that the C library uses clone(2)
//     kill, tgkill        signals to this process only
//     mmap, mprotect      executable memory only from files (plug-ins), and never writable
//     ioctl, prctl,       a short list of requests
//     fcntl
//     prlimit64           reading one's own limits
//
// All others fail with EPERM. Names that this architecture doesn't have are passed over. Needs no_new_privs.
// Fails with a reason where the kernel has no seccomp filters; the process is then as it was before. Before
// the process has a second thread.
tl::expected<void, std::string> filterSystemCalls(std::span<const char* const> plain);

// Takes these system calls away as well: they fail with EPERM from now on. Needs seccomp(2), which may be
// among them. As above otherwise.
tl::expected<void, std::string> forbidSystemCalls(std::span<const char* const> names);

}  // namespace telvora
