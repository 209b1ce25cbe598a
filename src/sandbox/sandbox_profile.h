// SPDX-License-Identifier: Apache-2.0
//
// The table of sandbox profiles: what a process confined under a name is left, beside its own directories.
#pragma once

#include <span>
#include <string_view>

namespace telvora {

struct SandboxProfile {
    std::string_view name;
    // Files and directories that may be read.
    std::span<const char* const> readable;
    // More of them for a process that runs as root, whom the files' own modes don't hold back, and for any
    // other process.
    std::span<const char* const> readableAsRoot;
    std::span<const char* const> readableAsUser;
    // Read and written.
    std::span<const char* const> writable;
    // System calls that may be made with any arguments.
    std::span<const char* const> systemCalls;
    // More of them until tightenSandbox().
    std::span<const char* const> systemCallsAtStart;
};

// The profile of that name, or null. It lives as long as the process.
const SandboxProfile* findSandboxProfile(std::string_view name);

}  // namespace telvora
