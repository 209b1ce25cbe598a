// SPDX-License-Identifier: Apache-2.0
//
// The table of sandbox profiles: the rights of a confined process, in addition to its own directories.
#pragma once

#include <span>
#include <string_view>

namespace telvora {

struct SandboxProfile {
    std::string_view name;
    // Files and directories with read access.
    std::span<const char* const> readable;
    // The same for a process that runs as root, which file modes don't restrict, and for any other process.
    std::span<const char* const> readableAsRoot;
    std::span<const char* const> readableAsUser;
    // With read and write access.
    std::span<const char* const> writable;
    // System calls that are permitted with any arguments.
    std::span<const char* const> systemCalls;
    // The same, permitted until tightenSandbox().
    std::span<const char* const> systemCallsAtStart;
};

// The profile of that name, or null. Lives as long as the process.
const SandboxProfile* findSandboxProfile(std::string_view name);

}  // namespace telvora
