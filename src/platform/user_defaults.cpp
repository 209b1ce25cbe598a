// SPDX-License-Identifier: Apache-2.0
#include "platform/user_defaults.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "plist/property_list_format.h"
#include "util/atomic_file.h"
#include "util/error_text.h"
#include "util/log.h"
#include "util/regular_file.h"
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

// Why a file has no dictionary.
struct FileFault {
    std::string reason;
    // The file itself is wrong. Otherwise it could not be read now, and may be in order.
    bool isDamage = true;
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

tl::expected<Dictionary, FileFault> readDomainFile(const std::filesystem::path& path) {
    const auto file = RegularFile::open(path);
    if (!file) return tl::make_unexpected(FileFault{file.error(), file.error() == RegularFile::kNotRegular});
    const auto document = file->read(kMaxDocumentBytes + 1);
    if (!document) return tl::make_unexpected(FileFault{document.error(), false});
    const auto content = parsePropertyList(*document);
    if (!content) return tl::make_unexpected(FileFault{content.error()});
    const Dictionary* dictionary = content->getIf<Dictionary>();
    if (dictionary == nullptr) return tl::make_unexpected(FileFault{"not a dictionary"});
    return *dictionary;
}

// Gives a file that is no readable dictionary another name, which no file has. Returns that name; fails with
// the reason.
tl::expected<std::filesystem::path, std::string> moveAside(const std::filesystem::path& path) {
    constexpr int kMostFiles = 10;
    std::string aside = path.string() + ".unreadable";
    for (int i = 1; identityOf(aside).error == 0 && i < kMostFiles; ++i)
        aside = path.string() + ".unreadable." + std::to_string(i);
    if (identityOf(aside).error == 0) {
        return tl::make_unexpected("ten unreadable files stand beside " + path.string());
    }
    if (rename(path.c_str(), aside.c_str()) != 0) return tl::make_unexpected(errorText("rename", errno));
    TELVORA_LOG(kLogWarning, "UserDefaults(moveAside): %s can't be read and is now %s", path.c_str(),
                aside.c_str());
    return aside;
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

// Replaces the file. A damaged one is moved aside, and back if the new one can't be written.
tl::expected<void, std::string> writeDomainFile(const std::filesystem::path& path, bool isDamaged,
                                                const std::string& document) {
    if (auto made = makeDirectory(path.parent_path()); !made) return made;
    if (!isDamaged) return replaceFile(path, document);
    const auto aside = moveAside(path);
    if (!aside) return tl::make_unexpected(aside.error());
    auto written = replaceFile(path, document);
    if (!written) rename(aside->c_str(), path.c_str());
    return written;
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
    std::optional<FileIdentity> identity;  // of the last access; std::nullopt before the first one
    Dictionary content;                    // the last that could be read, while the file is there
    bool wasRead = false;
    std::optional<FileFault> fault;  // of the file as it is now
};

UserDefaults::UserDefaults(const std::filesystem::path& configurationDirectory,
                           const std::filesystem::path& stateDirectory)
    : administratorDirectory_(configurationDirectory / "Preferences"),
      ownDirectory_(stateDirectory / "Preferences") {}

UserDefaults::~UserDefaults() = default;

const UserDefaults::CachedFile& UserDefaults::current(const std::filesystem::path& path) {
    CachedFile& file = files_[path];
    // Taken before the file is read: the next access sees a change between the two.
    const FileIdentity identity = identityOf(path);
    const bool isKnown = file.identity == identity;
    // A file that could not be read may be readable now.
    if (isKnown && (!file.fault || file.fault->isDamage)) return file;
    ++version_;
    file.identity = identity;
    file.fault.reset();
    if (identity.error == ENOENT || identity.error == ENOTDIR) {
        file.content = {};
        file.wasRead = false;
    } else if (auto content = readDomainFile(path)) {
        file.content = std::move(*content);
        file.wasRead = true;
    } else {
        file.fault = std::move(content.error());
        if (!isKnown) {
            TELVORA_LOG(kLogWarning, "UserDefaults(readDomainFile): %s counts as %s: %s", path.c_str(),
                        file.wasRead ? "it was before" : "absent", file.fault->reason.c_str());
        }
    }
    return file;
}

std::optional<PropertyList> UserDefaults::value(std::string_view domain, std::string_view key) {
    if (!isDomain(domain)) return std::nullopt;
    const MutexLock lock(mutex_);
    if (const PropertyList* value = current(fileOf(administratorDirectory_, domain)).content.find(key))
        return *value;
    if (const auto changes = unwritten_.find(domain); changes != unwritten_.end()) {
        if (const auto change = changes->second.find(key); change != changes->second.end()) {
            return change->second;
        }
    }
    if (const PropertyList* value = current(fileOf(ownDirectory_, domain)).content.find(key)) return *value;
    return std::nullopt;
}

std::optional<PropertyList> UserDefaults::administratorValue(std::string_view domain, std::string_view key) {
    if (!isDomain(domain)) return std::nullopt;
    const MutexLock lock(mutex_);
    const PropertyList* value = current(fileOf(administratorDirectory_, domain)).content.find(key);
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

tl::expected<void, std::string> UserDefaults::set(std::string_view domain, const Dictionary& values) {
    // A value that no file can hold must not block all later writes.
    const auto writable = serializePropertyList(values, PropertyListFormat::binary);
    if (!writable) return tl::make_unexpected(writable.error());
    Changes changes;
    for (const auto& [key, value] : values)
        changes.emplace(key, value);
    return change(domain, std::move(changes));
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
    Files files;
    for (const bool isOwn : {false, true}) {
        const std::filesystem::path path = fileOf(isOwn ? ownDirectory_ : administratorDirectory_, domain);
        const CachedFile& file = current(path);
        (isOwn ? files.own : files.administrator) = file.content;
        if (file.fault) files.faults.emplace(path, file.fault->reason);
    }
    if (const auto changes = unwritten_.find(domain); changes != unwritten_.end()) {
        apply(changes->second, files.own);
    }
    return files;
}

uint64_t UserDefaults::version(std::string_view domain) {
    const MutexLock lock(mutex_);
    for (const auto* directory : {&administratorDirectory_, &ownDirectory_})
        current(fileOf(*directory, domain));
    return version_;
}

bool UserDefaults::isNewlyUnfit(std::string_view domain, std::string_view key, const PropertyList& value) {
    const MutexLock lock(mutex_);
    PropertyList& known = unfit_[std::string(domain) + " " + std::string(key)];
    if (known == value) return false;
    known = value;
    return true;
}

void UserDefaults::apply(const Changes& changes, Dictionary& content) {
    for (const auto& [key, value] : changes) {
        if (value) {
            content.set(key, *value);
        } else {
            content.erase(key);
        }
    }
}

tl::expected<std::optional<UserDefaults::NewFile>, std::string> UserDefaults::adopt(
    const std::filesystem::path& path, const std::string& domain, Changes wanted) {
    const MutexLock lock(mutex_);
    const CachedFile& file = current(path);
    // The file may have other values for these keys, which count.
    if (file.fault && !file.fault->isDamage) return tl::make_unexpected(file.fault->reason);
    const auto unwritten = unwritten_.find(domain);
    if (unwritten != unwritten_.end())
        wanted.insert(unwritten->second.begin(), unwritten->second.end());  // the new ones win
    if (file.fault) {  // there is no file between a damaged one and the next
        for (const auto& [key, value] : file.content)
            wanted.emplace(key, value);
    }
    Dictionary content = file.content;
    apply(wanted, content);
    if (content == file.content) {
        if (unwritten != unwritten_.end()) unwritten_.erase(unwritten);
        ++version_;
        return std::nullopt;
    }
    // Keys contain names from clients, which XML could not always hold.
    auto document = serializePropertyList(content, PropertyListFormat::binary);
    if (!document) return tl::make_unexpected(document.error());
    if (document->size() > kMaxDocumentBytes) {
        return tl::make_unexpected("the file would be longer than 16 MiB");
    }
    unwritten_[domain] = std::move(wanted);
    ++version_;
    return NewFile{std::move(*document), file.fault.has_value()};
}

tl::expected<void, std::string> UserDefaults::change(std::string_view domain, Changes wanted) {
    if (!isDomain(domain)) return tl::make_unexpected("not a preference domain");
    const std::filesystem::path path = fileOf(ownDirectory_, domain);
    const std::string name(domain);
    const MutexLock writing(writes_);
    const UniqueFd turn = lockDirectory(ownDirectory_);
    const auto file = adopt(path, name, std::move(wanted));
    if (!file) return tl::make_unexpected(file.error());
    if (!*file) return {};
    if (auto written = writeDomainFile(path, (*file)->replacesDamaged, (*file)->document); !written)
        return written;
    const MutexLock lock(mutex_);
    unwritten_.erase(name);
    return {};
}

}  // namespace telvora
