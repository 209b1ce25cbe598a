// SPDX-License-Identifier: Apache-2.0
//
// User defaults: small settings by preference domain and key. Each domain is a pair of property lists,
//
//     <configuration directory>/Preferences/DOMAIN.plist   the administrator's: wins, never written
//     <state directory>/Preferences/DOMAIN.plist           the daemon's own: written by rename after fsync
//
// The second Preferences/ and its files are readable for the daemon's user alone. Every access checks the
// file (stat(2)) and reads it again if it has changed, so that an administrator's edit takes effect at once.
// After a change that leaves no readable dictionary, the values of before still count, with a warning; at the
// first access the file counts as absent. A write never replaces such a file: it first moves the file aside,
// to DOMAIN.plist.unreadable. Processes that write are serialised by flock(2) on the second Preferences/. All
// operations are thread-safe and may block on file I/O.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tl/expected.hpp>
#include <vector>

#include "plist/property_list.h"
#include "util/mutex.h"

namespace telvora {

inline constexpr std::string_view kTelvoraDefaultsDomain = "com.zandor.telvora";

class UserDefaults {
  public:
    UserDefaults(const std::filesystem::path& configurationDirectory,
                 const std::filesystem::path& stateDirectory);

    // The value under `key` in `domain`, the administrator's before the daemon's own; std::nullopt if neither
    // has it. An unreadable or malformed file is logged at level 4, once per change of the file.
    std::optional<PropertyList> value(std::string_view domain, std::string_view key);
    // The administrator's value alone. For settings that determine the confinement of the process: a
    // compromised daemon must not be able to loosen it for its next start.
    std::optional<PropertyList> administratorValue(std::string_view domain, std::string_view key);
    // As value(); std::nullopt also if the value is no string.
    std::optional<std::string> string(std::string_view domain, std::string_view key);
    // As value(), read as PropertyList::integerValue.
    std::optional<int64_t> integer(std::string_view domain, std::string_view key);
    // As value(), read as PropertyList::boolValue; false if absent.
    bool boolean(std::string_view domain, std::string_view key);

    // Stores values in the daemon's own file of that domain, with one write; durable on return. Fails with a
    // reason. A domain that is no file name, keys and values that a property list can't hold, and those that
    // would make the file too long for its reader are refused, and also all while the file is there but can't
    // be read for another reason than its content. After a failure to write, the values stay in memory for
    // the life of the process, so that identifiers stay stable meanwhile.
    tl::expected<void, std::string> set(std::string_view domain, const Dictionary& values);
    tl::expected<void, std::string> set(std::string_view domain, std::string_view key, PropertyList value) {
        return set(domain, Dictionary{{std::string(key), std::move(value)}});
    }
    // Removes keys from the daemon's own file with one write. Removing an absent key succeeds. Fails as set()
    // does.
    tl::expected<void, std::string> remove(std::string_view domain, const std::vector<std::string>& keys);

    // The current contents of the two files of a domain; `own` with the values that could not be written.
    // `faults` has the reasons by file, if one is no readable dictionary: its content is then that of before.
    struct Files {
        Dictionary administrator;
        Dictionary own;
        std::map<std::filesystem::path, std::string> faults;
    };
    Files files(std::string_view domain);

    // A number that changes with every change of the domain's values, and may change without one. A reader of
    // many values need not read them again while it is the same.
    uint64_t version(std::string_view domain);

    // Whether this is the first call for the key, or the value differs from that of the last call: a reader
    // that ignores a value logs that once.
    bool isNewlyUnfit(std::string_view domain, std::string_view key, const PropertyList& value);

    // Whether the text can name a domain: it is the name of one file, without a path.
    static bool isDomain(std::string_view domain);

    ~UserDefaults();

  private:
    struct CachedFile;                           // a file's content and the stat(2) data of its version
    using Change = std::optional<PropertyList>;  // a new value; std::nullopt: the key is removed
    using Changes = std::map<std::string, Change, std::less<>>;

    // The current content of a file; costs one stat(2) if the file has not changed.
    const CachedFile& current(const std::filesystem::path& path) TELVORA_REQUIRES(mutex_);
    static void apply(const Changes& changes, Dictionary& content);
    tl::expected<void, std::string> change(std::string_view domain, Changes wanted);
    // A file to write, whose content holds all changes of its domain.
    struct NewFile {
        std::string document;
        bool replacesDamaged = false;
    };
    // Makes the domain's changes current, with these. Returns the file that holds them; std::nullopt if it is
    // there already. Fails without effect, with a reason.
    tl::expected<std::optional<NewFile>, std::string> adopt(const std::filesystem::path& path,
                                                            const std::string& domain, Changes wanted)
        TELVORA_EXCLUDES(mutex_);

    // One writer at a time. It holds mutex_ only while it does not write, so that readers never wait for the
    // disk's writes.
    Mutex writes_{LockRank::defaultsWrites};
    Mutex mutex_{LockRank::defaults};
    const std::filesystem::path administratorDirectory_;
    const std::filesystem::path ownDirectory_;
    std::map<std::filesystem::path, CachedFile> files_ TELVORA_GUARDED_BY(mutex_);
    uint64_t version_ TELVORA_GUARDED_BY(mutex_) = 0;
    // By domain, changes that could not be written; the next write includes them.
    std::map<std::string, Changes, std::less<>> unwritten_ TELVORA_GUARDED_BY(mutex_);
    std::map<std::string, PropertyList> unfit_ TELVORA_GUARDED_BY(mutex_);  // by domain and key
};

}  // namespace telvora
