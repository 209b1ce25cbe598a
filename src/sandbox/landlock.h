// SPDX-License-Identifier: Apache-2.0
//
// Landlock (landlock(7)): what of the file system, of TCP and of other processes this process may reach. It
// can only ever be made narrower, and holds for all threads that are started afterwards.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <tl/expected.hpp>

#include "util/unique_fd.h"

namespace telvora {

// What may be done to a path and, where it is a directory, to all beneath it. Nothing may ever be executed.
enum class PathAccess {
    read,            // read files, list directories
    readAndRemove,   // and remove files
    readWrite,       // and write, make and remove files and directories
    readWriteSocket  // and make sockets
};

// One thread's business, before it starts others.
class Landlock {
  public:
    // A rule set that forbids all that the running kernel can forbid: every access to files, binding TCP
    // ports, signals to and abstract sockets of processes outside. Fails where the kernel has no Landlock or
    // it is switched off.
    static tl::expected<Landlock, std::string> make();

    // The kernel's Landlock ABI: files from 1 on, truncation from 3, TCP from 4, devices' ioctl(2) from 5,
    // signals and abstract sockets from 6.
    int abi() const { return abi_; }

    // Permits an access; a path that isn't there, or that this process can't reach anyway, is passed over.
    tl::expected<void, std::string> allow(const std::filesystem::path& path, PathAccess access);

    // Puts the rules in force for the calling thread and those that it starts. Requires no_new_privs.
    tl::expected<void, std::string> restrictSelf();

  private:
    Landlock(int abi, UniqueFd ruleset) : abi_(abi), ruleset_(std::move(ruleset)) {}

    int abi_;
    UniqueFd ruleset_;
};

}  // namespace telvora
