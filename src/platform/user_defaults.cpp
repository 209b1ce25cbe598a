// SPDX-License-Identifier: Apache-2.0
#include "platform/user_defaults.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "plist/property_list_format.h"
#include "util/atomic_file.h"
#include "util/error_text.h"
#include "util/log.h"
#include "util/unique_fd.h"

namespace telvora {

// Identifies a file's version: a file replaced by rename has a new inode, one edited in place has new times.
struct FileIdentity {
    int error = 0;  // errno of stat(2)
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    int64_t modifiedSeconds = 0, modifiedNanoseconds = 0;
    int64_t changedSeconds = 0, changedNanoseconds = 0;

    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

namespace {

FileIdentity identityOf(const std::filesystem::path& path) {
    FileIdentity identity;
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        identity.error = errno;
        return identity;
    }
    identity.device = status.st_dev;
    identity.inode = status.st_ino;
    identity.size = status.st_size;
    identity.modifiedSeconds = status.st_mtim.tv_sec;
    identity.modifiedNanoseconds = status.st_mtim.tv_nsec;
    identity.changedSeconds = status.st_ctim.tv_sec;
    identity.changedNanoseconds = status.st_ctim.tv_nsec;
    return identity;
}

Dictionary readDomainFile(const std::filesystem::path& path) {
    const auto content = readPropertyListFile(path);
    const Dictionary* dictionary = content ? content->getIf<Dictionary>() : nullptr;
    if (dictionary != nullptr) return *dictionary;
    TELVORA_LOG(kLogWarning, "UserDefaults(readDomainFile): %s counts as absent: %s", path.c_str(),
                content ? "not a dictionary" : content.error().c_str());
    return {};
}

std::filesystem::path fileOf(const std::filesystem::path& directory, std::string_view domain) {
    return directory / (std::string(domain) + ".plist");
}

tl::expected<void, std::string> makeDirectory(const std::filesystem::path& directory) {
    std::error_code error;
    std::filesystem::create_directories(directory.parent_path(), error);
    if (mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST) return {};
    return tl::make_unexpected(errorText("mkdir", errno));
}

tl::expected<void, std::string> writeDomainFile(const std::filesystem::path& path,
                                                const Dictionary& content) {
    // Keys contain names from clients, which XML could not always hold.
    return serializePropertyList(content, PropertyListFormat::binary)
        .and_then([&](const std::string& document) {
            return makeDirectory(path.parent_path()).and_then([&] { return replaceFile(path, document); });
        });
}

// Locks an existing directory until the descriptor is closed.
UniqueFd lockDirectory(const std::filesystem::path& directory) {
    UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    while (fd && flock(fd.get(), LOCK_EX) != 0 && errno == EINTR) {
    }
    return fd;
}

}  // namespace

bool UserDefaults::isDomain(std::string_view domain) {
    return !domain.empty() && domain.front() != '.' && domain.find('/') == std::string_view::npos;
}

struct UserDefaults::CachedFile {
    std::optional<FileIdentity> identity;  // std::nullopt until the file has been read
    Dictionary content;
};

UserDefaults::UserDefaults(const std::filesystem::path& configurationDirectory,
                           const std::filesystem::path& stateDirectory)
    : administratorDirectory_(configurationDirectory / "Preferences"),
      ownDirectory_(stateDirectory / "Preferences") {}

UserDefaults::~UserDefaults() = default;

const Dictionary& UserDefaults::current(const std::filesystem::path& path) {
    CachedFile& file = files_[path];
    // Taken before the file is read: the next access sees a change between the two.
    const FileIdentity identity = identityOf(path);
    if (file.identity == identity) return file.content;
    file.identity = identity;
    file.content = identity.error == ENOENT ? Dictionary() : readDomainFile(path);
    return file.content;
}

std::optional<PropertyList> UserDefaults::value(std::string_view domain, std::string_view key) {
    if (!isDomain(domain)) return std::nullopt;
    const MutexLock lock(mutex_);
    if (const PropertyList* value = current(fileOf(administratorDirectory_, domain)).find(key)) return *value;
    if (const auto changes = unwritten_.find(domain); changes != unwritten_.end()) {
        if (const auto change = changes->second.find(key); change != changes->second.end()) {
            return change->second;
        }
    }
    if (const PropertyList* value = current(fileOf(ownDirectory_, domain)).find(key)) return *value;
    return std::nullopt;
}

std::optional<PropertyList> UserDefaults::administratorValue(std::string_view domain, std::string_view key) {
    if (!isDomain(domain)) return std::nullopt;
    const MutexLock lock(mutex_);
    const PropertyList* value = current(fileOf(administratorDirectory_, domain)).find(key);
    return value != nullptr ? std::optional(*value) : std::nullopt;
}

std::optional<std::string> UserDefaults::string(std::string_view domain, std::string_view key) {
    const std::optional<PropertyList> found = value(domain, key);
    const std::string* text = found ? found->getIf<std::string>() : nullptr;
    return text ? std::optional(*text) : std::nullopt;
}

std::optional<int64_t> UserDefaults::integer(std::string_view domain, std::string_view key) {
    const std::optional<PropertyList> found = value(domain, key);
    return found ? found->integerValue() : std::nullopt;
}

bool UserDefaults::boolean(std::string_view domain, std::string_view key) {
    const std::optional<PropertyList> found = value(domain, key);
    return found && found->boolValue();
}

tl::expected<void, std::string> UserDefaults::set(std::string_view domain, std::string_view key,
                                                  PropertyList value) {
    // A value that no file can hold must not block all later writes.
    const auto writable =
        serializePropertyList(Dictionary{{std::string(key), value}}, PropertyListFormat::binary);
    if (!writable) return tl::make_unexpected(writable.error());
    return change(domain, {{std::string(key), std::move(value)}});
}

tl::expected<void, std::string> UserDefaults::remove(std::string_view domain,
                                                     const std::vector<std::string>& keys) {
    Changes removals;
    for (const std::string& key : keys)
        removals.emplace(key, std::nullopt);
    return change(domain, std::move(removals));
}

UserDefaults::Files UserDefaults::files(std::string_view domain) {
    if (!isDomain(domain)) return {};
    const MutexLock lock(mutex_);
    return {current(fileOf(administratorDirectory_, domain)), current(fileOf(ownDirectory_, domain))};
}

tl::expected<void, std::string> UserDefaults::change(std::string_view domain, Changes wanted) {
    if (!isDomain(domain)) return tl::make_unexpected("not a preference domain");
    const MutexLock lock(mutex_);
    const std::filesystem::path path = fileOf(ownDirectory_, domain);
    Changes& changes = unwritten_[std::string(domain)];
    wanted.merge(changes);  // the new ones win
    changes = std::move(wanted);

    const UniqueFd turn = lockDirectory(ownDirectory_);
    Dictionary content = current(path);
    for (const auto& [changedKey, newValue] : changes) {
        if (newValue) {
            content.set(changedKey, *newValue);
        } else {
            content.erase(changedKey);
        }
    }
    if (content != current(path)) {
        if (auto written = writeDomainFile(path, content); !written) return written;
    }
    unwritten_.erase(unwritten_.find(domain));
    return {};
}

}  // namespace telvora
