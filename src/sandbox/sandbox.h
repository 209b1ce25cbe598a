// SPDX-License-Identifier: Apache-2.0
//
// Confinement: the process permanently gives up all rights that its work does not need, so that an exploited
// fault gains little. Three layers, each effective without the others: dropped privileges
// (sandbox/privileges.h), Landlock for files, TCP ports and other processes (sandbox/landlock.h), and a list
// of permitted system calls (sandbox/system_call_filter.h). A profile defines the remaining rights; profiles
// are compiled in and have names.
//
// Limits: connecting to TCP and UDP servers and to Unix sockets with a path is allowed. Abstract Unix sockets
// are reachable below Landlock ABI 6, because seccomp cannot see addresses. Descriptors that were open before
// keep their rights.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <vector>

#include "platform/directories.h"

namespace telvora {

// Directories and files of the process itself, in addition to those of the profile. Empty paths are ignored.
struct SandboxPaths {
    std::vector<std::filesystem::path> readOnly;       // with all paths beneath them
    std::vector<std::filesystem::path> readAndRemove;  // diagnostic files, removed after their upload
    std::vector<std::filesystem::path> readWrite;      // directories; created if missing
    std::filesystem::path runtime;                     // a readWrite directory that also holds sockets

    // Configuration and framework read-only; state, logs and runtime directory read-write; the directories of
    // the certificates that SSL_CERT_FILE and SSL_CERT_DIR name read-only.
    static SandboxPaths fromDirectories(const Directories& directories);
};

// The restrictions in force.
struct SandboxStatus {
    std::string profile;
    int landlockAbi = 0;
    bool files = false;
    // The system-call filter denies these, and Landlock does too from ABI 4, 5 and 6 on.
    bool tcpBind = false;
    bool deviceIoctl = false;
    bool signals = false;
    bool abstractSockets = false;  // from Landlock ABI 6 on
    bool systemCallFilter = false;
    bool noNewPrivileges = false;
    bool noCapabilities = false;
    bool emptyBoundingSet = false;
    bool notDumpable = false;

    // One line for people: the restrictions in force, and those missing.
    std::string description() const;
};

// Confines the process under the profile of that name, permanently. Must be called while the process has one
// thread: after logging starts, and before other resources are made. Fails with a reason if the profile is
// unknown, if there is another thread, and if the kernel lacks or refuses Landlock or seccomp filters; the
// process may then be partly confined and should end.
tl::expected<SandboxStatus, std::string> enterSandbox(std::string_view profileName,
                                                      const SandboxPaths& paths);

// Drops the rights that the profile grants for the start of the process only: afterwards no socket can listen
// and no file mode can change. Must be called while the process has one thread. Fails with a reason if the
// kernel refuses; the process should then end.
tl::expected<void, std::string> tightenSandbox(std::string_view profileName);

}  // namespace telvora
