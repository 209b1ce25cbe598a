// SPDX-License-Identifier: Apache-2.0
//
// The system calls that a confined process may make (seccomp(2), through libseccomp).
#pragma once

#include <span>
#include <string>
#include <tl/expected.hpp>

namespace telvora {

// Restricts the calling process and the threads that it starts to the system calls named in `plain`, with any
// arguments, and to these, with checked arguments:
//
//     socket, socketpair  Unix sockets, TCP and UDP over IP, and netlink's routing family; no raw sockets
//     open, openat        a file that is opened only for reading is not truncated; openat2(2) does not exist
//     clone               threads only; clone3(2) does not exist, so that the C library uses clone(2)
//     kill, tgkill        signals to this process only
//     mmap, mprotect      executable memory only from files (plug-ins), and never writable
//     ioctl, prctl,       a short list of requests
//     fcntl
//     prlimit64           reading the limits of this process
//
// All others fail with EPERM. Names that this architecture lacks are ignored. Needs no_new_privs. Must be
// called before the process has a second thread. Fails with a reason if the kernel has no seccomp filters;
// the process is then unchanged.
tl::expected<void, std::string> filterSystemCalls(std::span<const char* const> plain);

// Forbids these system calls as well: they fail with EPERM from now on. Needs seccomp(2), which may be among
// them. Fails as filterSystemCalls() does.
tl::expected<void, std::string> forbidSystemCalls(std::span<const char* const> names);

}  // namespace telvora
