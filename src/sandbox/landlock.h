// SPDX-License-Identifier: Apache-2.0
//
// Landlock (landlock(7)): restricts the files, TCP ports and other processes that this process may reach.
// Restrictions can only grow, and apply to all threads that are started afterwards.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <tl/expected.hpp>

#include "util/unique_fd.h"

namespace telvora {

// Access to a path and, if it is a directory, to all paths beneath it. Executing files is always forbidden.
enum class PathAccess {
    read,            // read files, list directories
    readAndRemove,   // also remove files
    readWrite,       // also write, create and remove files and directories
    readWriteSocket  // also create sockets
};

// Used by one thread, before it starts others.
class Landlock {
  public:
    // A rule set that forbids everything that the running kernel can forbid: all access to files, binding TCP
    // ports, and signals and abstract sockets of other processes. Fails with a reason if the kernel has no
    // Landlock or it is disabled.
    static tl::expected<Landlock, std::string> make();

    // The kernel's Landlock ABI: files from 1 on, truncation from 3, TCP from 4, devices' ioctl(2) from 5,
    // signals and abstract sockets from 6.
    int abi() const { return abi_; }

    // Permits an access. Ignores a path that doesn't exist or that this process can't reach anyway. Fails
    // with a reason.
    tl::expected<void, std::string> allow(const std::filesystem::path& path, PathAccess access);

    // Applies the rules to the calling thread and the threads that it starts. Requires no_new_privs. Fails
    // with a reason.
    tl::expected<void, std::string> restrictSelf();

  private:
    Landlock(int abi, UniqueFd ruleset) : abi_(abi), ruleset_(std::move(ruleset)) {}

    int abi_;
    UniqueFd ruleset_;
};

}  // namespace telvora
