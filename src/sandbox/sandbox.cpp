// SPDX-License-Identifier: Apache-2.0
#include "sandbox/sandbox.h"

#include <unistd.h>

#include <cstdlib>
#include <span>
#include <system_error>

#include "sandbox/landlock.h"
#include "sandbox/privileges.h"
#include "sandbox/sandbox_profile.h"
#include "sandbox/sanitizer_needs.h"
#include "sandbox/system_call_filter.h"
#include "util/ascii.h"
#include "util/log.h"

namespace telvora {

namespace {

using Result = tl::expected<void, std::string>;

bool hasOtherThreads() {
    std::error_code error;
    std::filesystem::directory_iterator tasks("/proc/self/task", error);
    if (error) return true;  // unknown: assume the worst
    return std::distance(begin(tasks), end(tasks)) != 1;
}

// A rule needs an existing path, and the confined process can't create directories elsewhere.
void makeDirectory(const std::filesystem::path& directory) {
    if (directory.empty()) return;
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (!error) return;
    TELVORA_LOG(kLogWarning, "enterSandbox: can't make the directory %s: %s", directory.c_str(),
                error.message().c_str());
}

template <typename Paths>
Result allowAll(Landlock& landlock, const Paths& paths, PathAccess access) {
    for (const auto& entry : paths) {
        const std::filesystem::path& path = entry;
        if (path.empty()) continue;
        if (Result allowed = landlock.allow(path, access); !allowed) return allowed;
    }
    return {};
}

Result allowPaths(Landlock& landlock, const SandboxProfile& profile, const SandboxPaths& paths) {
    const auto forThisUser = geteuid() == 0 ? profile.readableAsRoot : profile.readableAsUser;
    const std::span runtime(&paths.runtime, 1);
    return allowAll(landlock, profile.readable, PathAccess::read)
        .and_then([&] { return allowAll(landlock, forThisUser, PathAccess::read); })
        .and_then([&] { return allowAll(landlock, profile.writable, PathAccess::readWrite); })
        .and_then([&] { return allowAll(landlock, sanitizer_needs::kReadWritePaths, PathAccess::readWrite); })
        .and_then([&] { return allowAll(landlock, paths.readOnly, PathAccess::read); })
        .and_then([&] { return allowAll(landlock, paths.readAndRemove, PathAccess::readAndRemove); })
        .and_then([&] { return allowAll(landlock, paths.readWrite, PathAccess::readWrite); })
        .and_then([&] { return allowAll(landlock, runtime, PathAccess::readWriteSocket); });
}

tl::unexpected<std::string> noProfile(std::string_view name) {
    return tl::unexpected("no profile named \"" + std::string(name) + "\"");
}

Result allowSystemCalls(const SandboxProfile& profile) {
    std::vector<const char*> calls(profile.systemCalls.begin(), profile.systemCalls.end());
    calls.insert(calls.end(), profile.systemCallsAtStart.begin(), profile.systemCallsAtStart.end());
    return filterSystemCalls(calls);
}

SandboxStatus statusOf(const SandboxProfile& profile, int landlockAbi, const DroppedPrivileges& dropped) {
    SandboxStatus status;
    status.profile = profile.name;
    status.landlockAbi = landlockAbi;
    status.files = status.tcpBind = status.deviceIoctl = status.signals = true;
    status.abstractSockets = landlockAbi >= 6;
    status.systemCallFilter = status.noNewPrivileges = status.noCapabilities = true;
    status.emptyBoundingSet = dropped.boundingSet;
    status.notDumpable = dropped.notDumpable;
    return status;
}

}  // namespace

SandboxPaths SandboxPaths::fromDirectories(const Directories& own) {
    SandboxPaths paths;
    paths.readOnly = {own.configuration, own.framework};
    paths.readWrite = {own.state, own.logs};
    paths.runtime = own.runtime;
    if (const char* file = std::getenv("SSL_CERT_FILE"); file != nullptr && *file != '\0') {
        // The directory, because a renewal of the certificates replaces the file.
        paths.readOnly.push_back(std::filesystem::path(file).parent_path());
    }
    if (const char* directories = std::getenv("SSL_CERT_DIR"); directories != nullptr) {
        for (std::string_view rest = directories; !rest.empty();)
            paths.readOnly.emplace_back(takePart(rest, ':'));
    }
    return paths;
}

std::string SandboxStatus::description() const {
    std::string inForce, missing;
    const auto add = [&](bool holds, const char* what) {
        std::string& list = holds ? inForce : missing;
        if (!list.empty()) list += ", ";
        list += what;
    };
    add(files, "files");
    add(tcpBind, "TCP bind");
    add(deviceIoctl, "device ioctl");
    add(signals, "signals");
    add(abstractSockets, "abstract sockets");
    add(systemCallFilter, "system calls");
    add(noNewPrivileges, "no new privileges");
    add(noCapabilities, "no capabilities");
    add(emptyBoundingSet, "empty bounding set");
    add(notDumpable, "not dumpable");
    return profile + " (Landlock ABI " + std::to_string(landlockAbi) + "): " + inForce +
           (missing.empty() ? "" : "; not in force: " + missing);
}

// Privileges are dropped after the directories are created, which may need them; system calls are restricted
// last.
tl::expected<SandboxStatus, std::string> enterSandbox(std::string_view profileName,
                                                      const SandboxPaths& paths) {
    const SandboxProfile* profile = findSandboxProfile(profileName);
    if (profile == nullptr) return noProfile(profileName);
    if (!sanitizer_needs::kOtherThreadsAtEntry && hasOtherThreads()) {
        return tl::unexpected(std::string("the process has more than one thread"));
    }
    auto landlock = Landlock::make();
    if (!landlock) return tl::unexpected(landlock.error());

    for (const auto& directory : paths.readWrite)
        makeDirectory(directory);
    makeDirectory(paths.runtime);
    if (Result allowed = allowPaths(*landlock, *profile, paths); !allowed)
        return tl::unexpected(allowed.error());
    const auto dropped = dropPrivileges();
    if (!dropped) return tl::unexpected(dropped.error());
    if (Result restricted = landlock->restrictSelf(); !restricted) return tl::unexpected(restricted.error());
    if (Result filtered = allowSystemCalls(*profile); !filtered) return tl::unexpected(filtered.error());
    return statusOf(*profile, landlock->abi(), *dropped);
}

tl::expected<void, std::string> tightenSandbox(std::string_view profileName) {
    const SandboxProfile* profile = findSandboxProfile(profileName);
    if (profile == nullptr) return noProfile(profileName);
    return forbidSystemCalls(profile->systemCallsAtStart);
}

}  // namespace telvora
