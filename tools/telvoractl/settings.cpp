// SPDX-License-Identifier: Apache-2.0
#include "settings.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "util/error_text.h"

namespace telvora::ctl {

namespace {

constexpr char kAsRoot[] = "; root and the daemon's user may";

// If this process runs as root and `directory` belongs to another user, becomes that user permanently, with
// its groups. Files created there then belong to that user, and a malicious link among existing files reaches
// no further than that user does. Fails with a reason; then the process must not continue.
tl::expected<void, std::string> becomeOwnerOf(const std::filesystem::path& directory) {
    struct stat status {};
    if (geteuid() != 0 || stat(directory.c_str(), &status) != 0 || status.st_uid == 0) return {};
    const passwd* user = getpwuid(status.st_uid);
    const gid_t group = user != nullptr ? user->pw_gid : status.st_gid;
    const bool grouped = user != nullptr ? initgroups(user->pw_name, group) == 0 : setgroups(1, &group) == 0;
    if (!grouped || setresgid(group, group, group) != 0 ||
        setresuid(status.st_uid, status.st_uid, status.st_uid) != 0) {
        return tl::unexpected("can't become the owner of " + directory.string());
    }
    return {};
}

// The reason why the property lists of a directory can't be read; std::nullopt if they can, or are absent.
std::optional<std::string> whyUnreadable(const std::filesystem::path& directory) {
    const auto mayRead = [](const std::filesystem::path& path, int mode) {
        return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 || errno == ENOENT;
    };
    if (!mayRead(directory, R_OK | X_OK))
        return errorText("can't read " + directory.string(), errno) + kAsRoot;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        const bool isDomain = entry.path().extension() == ".plist";
        if (isDomain && !mayRead(entry.path(), R_OK)) {
            return errorText("can't read " + entry.path().string(), errno) + kAsRoot;
        }
    }
    return std::nullopt;
}

}  // namespace

tl::expected<Settings, std::string> Settings::open() {
    logToStandardError();
    Settings settings;
    if (const auto became = becomeOwnerOf(settings.directories_.state); !became) {
        return tl::unexpected(became.error());
    }
    return settings;
}

tl::expected<Settings, std::string> Settings::openReadable() {
    auto settings = open();
    if (!settings) return settings;
    const Directories& directories = settings->directories_;
    for (const auto& parent : {directories.configuration, directories.state}) {
        if (const auto why = whyUnreadable(parent / "Preferences")) return tl::unexpected(*why);
    }
    return settings;
}

int Settings::write(const std::string& domain, const std::string& key, PropertyList value) {
    if (!UserDefaults::isDomain(domain)) return fail(kBadInput, domain + ": not a preference domain");
    if (const auto why = whyUnreadable(directories_.state / "Preferences")) return fail(kNotDone, *why);
    return done(defaults_->set(domain, key, std::move(value)), domain, {key});
}

int Settings::remove(const std::string& domain, const std::vector<std::string>& keys) {
    if (!UserDefaults::isDomain(domain)) return fail(kBadInput, domain + ": not a preference domain");
    if (const auto why = whyUnreadable(directories_.state / "Preferences")) return fail(kNotDone, *why);
    return done(defaults_->remove(domain, keys), domain, keys);
}

int Settings::done(const tl::expected<void, std::string>& written, const std::string& domain,
                   const std::vector<std::string>& keys) {
    if (!written) {
        return fail(kNotDone, (directories_.state / "Preferences").string() + ": " + written.error());
    }
    const Dictionary administrators = defaults_->files(domain).administrator;
    int status = kDone;
    for (const std::string& key : keys) {
        if (!administrators.contains(key)) continue;
        const auto file = directories_.configuration / "Preferences" / (domain + ".plist");
        status =
            fail(kNotDone, "done, but without effect: " + file.string() + " sets \"" + key + "\" and wins");
    }
    return status;
}

}  // namespace telvora::ctl
