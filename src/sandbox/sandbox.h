// SPDX-License-Identifier: Apache-2.0
//
// Confinement: the process gives up for good all that its work does not need, so that a fault in it, found by
// a hostile client or server, gains little. Three layers, each of which holds without the others: no
// privileges (sandbox/privileges.h), Landlock for files, TCP ports and other processes
// (sandbox/landlock.h), and a list of permitted system calls (sandbox/system_call_filter.h). A profile says
// what is left; profiles are compiled in and go by name.
//
// Limits: connecting is free, to TCP and UDP servers and to Unix sockets that have a path. Abstract Unix
// sockets can be reached below Landlock ABI 6, since seccomp cannot see addresses. Descriptors that were open
// before keep their rights.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <vector>

#include "platform/directories.h"

namespace telvora {

// The process's own directories and files, beside those of the profile. Empty paths are passed over.
struct SandboxPaths {
    std::vector<std::filesystem::path> readOnly;       // with all beneath them
    std::vector<std::filesystem::path> readAndRemove;  // diagnostic files that are removed once uploaded
    std::vector<std::filesystem::path> readWrite;      // directories; made when they are not there
    std::filesystem::path runtime;                     // a readWrite directory that also holds sockets

    // Configuration and framework read-only; state, logs and runtime directory read-write; and, read-only,
    // the directories of the certificates that SSL_CERT_FILE and SSL_CERT_DIR name.
    static SandboxPaths fromDirectories(const Directories& directories);
};

// What is in force.
struct SandboxStatus {
    std::string profile;
    int landlockAbi = 0;
    bool files = false;
    // Denied by the system-call filter, whatever Landlock adds from ABI 4, 5 and 6 on.
    bool tcpBind = false;
    bool deviceIoctl = false;
    bool signals = false;
    bool abstractSockets = false;  // from Landlock ABI 6 on
    bool systemCallFilter = false;
    bool noNewPrivileges = false;
    bool noCapabilities = false;
    bool emptyBoundingSet = false;
    bool notDumpable = false;

    // One line for people: what is in force, and what isn't.
    std::string description() const;
};

// Confines the process under the profile of that name, for the rest of its life. Must be called while the
// process has one thread; so sockets and other resources come after it, and logging may come before. Fails
// with a reason when there is no such profile, when there is another thread, and when the kernel has no
// Landlock or no seccomp filters or refuses; the process may then be partly confined and should end.
tl::expected<SandboxStatus, std::string> enterSandbox(std::string_view profileName,
                                                      const SandboxPaths& paths);

// Gives up what the profile grants to the start of the process only: once its sockets are there, nothing can
// be made to listen, and no mode of a file be changed. Must be called while the process has one thread. Fails
// with a reason when the kernel refuses; the process should then end.
tl::expected<void, std::string> tightenSandbox(std::string_view profileName);

}  // namespace telvora
