// SPDX-License-Identifier: Apache-2.0
//
// The numbers are the kernel's (linux/landlock.h). They are defined here because the headers of the build
// system may be older than the running kernel.
#include "sandbox/landlock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cerrno>

#include "sandbox/refused_call.h"
#include "util/error_text.h"

namespace telvora {

namespace {

constexpr unsigned kQueryVersion = 1U << 0;
constexpr int kRulePathBeneath = 1;

constexpr uint64_t kExecute = 1ULL << 0;
constexpr uint64_t kWriteFile = 1ULL << 1;
constexpr uint64_t kReadFile = 1ULL << 2;
constexpr uint64_t kReadDirectory = 1ULL << 3;
constexpr uint64_t kRemoveDirectory = 1ULL << 4;
constexpr uint64_t kRemoveFile = 1ULL << 5;
constexpr uint64_t kMakeDirectory = 1ULL << 7;
constexpr uint64_t kMakeRegular = 1ULL << 8;
constexpr uint64_t kMakeSocket = 1ULL << 9;
constexpr uint64_t kTruncate = 1ULL << 14;
constexpr uint64_t kIoctlDevice = 1ULL << 15;
constexpr uint64_t kRightsOfFiles = kExecute | kWriteFile | kReadFile | kTruncate | kIoctlDevice;

constexpr uint64_t kBindTcp = 1ULL << 0;
constexpr uint64_t kScopeAbstractSocket = 1ULL << 0;
constexpr uint64_t kScopeSignal = 1ULL << 1;

struct RulesetAttributes {
    uint64_t handledFileAccess;
    uint64_t handledNetworkAccess;
    uint64_t scoped;
};

struct [[gnu::packed]] PathBeneathAttributes {
    uint64_t allowedAccess;
    int32_t parent;
};

// Each ABI adds rights above those of the previous one.
uint64_t knownFileAccess(int abi) {
    if (abi >= 5) return (1ULL << 16) - 1;  // up to ioctl(2) on devices
    if (abi >= 3) return (1ULL << 15) - 1;  // up to truncation
    if (abi >= 2) return (1ULL << 14) - 1;  // up to moving between directories
    return (1ULL << 13) - 1;
}

RulesetAttributes everything(int abi) {
    return {knownFileAccess(abi), abi >= 4 ? kBindTcp : 0,
            abi >= 6 ? kScopeAbstractSocket | kScopeSignal : 0};
}

uint64_t rightsFor(PathAccess access) {
    uint64_t rights = kReadFile | kReadDirectory;
    if (access == PathAccess::read) return rights;
    rights |= kRemoveFile;
    if (access == PathAccess::readAndRemove) return rights;
    rights |= kWriteFile | kTruncate | kMakeRegular | kMakeDirectory | kRemoveDirectory;
    if (access == PathAccess::readWrite) return rights;
    return rights | kMakeSocket;
}

tl::unexpected<std::string> failure(const std::string& what) {
    return tl::unexpected(errorText(what, errno));
}

constexpr char kCreateRuleset[] = "landlock_create_ruleset";

std::string whyNoLandlock(int error) {
    if (error == ENOSYS)
        return "the kernel has no Landlock: it needs Linux 5.13 or later with CONFIG_SECURITY_LANDLOCK";
    if (error == EOPNOTSUPP)
        return "Landlock is switched off: add \"landlock\" to the lsm= list of the kernel's command line";
    return refusedCall(kCreateRuleset, error);
}

}  // namespace

tl::expected<Landlock, std::string> Landlock::make() {
    const long abi = syscall(SYS_landlock_create_ruleset, nullptr, 0, kQueryVersion);
    if (abi < 1) return tl::unexpected(whyNoLandlock(errno));
    const RulesetAttributes attributes = everything(static_cast<int>(abi));
    // Kernels accept a longer structure than they know if the rest is zero.
    UniqueFd ruleset(
        static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0)));
    if (!ruleset) return tl::unexpected(refusedCall(kCreateRuleset, errno));
    return Landlock(static_cast<int>(abi), std::move(ruleset));
}

tl::expected<void, std::string> Landlock::allow(const std::filesystem::path& path, PathAccess access) {
    const UniqueFd target(open(path.c_str(), O_PATH | O_CLOEXEC));
    if (!target) {
        if (errno == ENOENT || errno == ENOTDIR || errno == EACCES) return {};
        return failure("can't open " + path.native());
    }
    struct stat status {};
    if (fstat(target.get(), &status) != 0) return failure("can't examine " + path.native());
    uint64_t rights = rightsFor(access) & knownFileAccess(abi_);
    if (!S_ISDIR(status.st_mode)) rights &= kRightsOfFiles;
    const PathBeneathAttributes rule{rights, target.get()};
    if (syscall(SYS_landlock_add_rule, ruleset_.get(), kRulePathBeneath, &rule, 0) != 0) {
        return tl::unexpected(refusedCall("landlock_add_rule", errno) + " for " + path.native());
    }
    return {};
}

tl::expected<void, std::string> Landlock::restrictSelf() {
    if (syscall(SYS_landlock_restrict_self, ruleset_.get(), 0) != 0) {
        return tl::unexpected(refusedCall("landlock_restrict_self", errno));
    }
    return {};
}

}  // namespace telvora
