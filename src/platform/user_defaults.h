// SPDX-License-Identifier: Apache-2.0
//
// User defaults: small settings by preference domain and key. Each domain is a property list,
//
//     <configuration directory>/Preferences/DOMAIN.plist   the administrator's: wins, never written
//     <state directory>/Preferences/DOMAIN.plist           the daemon's own: written by rename after fsync
//
// The second Preferences/ and its files are made readable for the daemon's user alone. A file is looked at on
// every access (stat(2)) and read again when it has changed, so that an administrator's edit counts at once.
// Processes that write take turns by flock(2) on the second Preferences/, so that none undoes another's
// change. All operations are thread-safe and may block on file I/O.
#pragma once

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

// The domain of the daemon's own settings.
inline constexpr std::string_view kTelvoraDefaultsDomain = "com.zandor.telvora";

class UserDefaults {
  public:
    UserDefaults(const std::filesystem::path& configurationDirectory,
                 const std::filesystem::path& stateDirectory);

    // The value under `key` in `domain`, the administrator's before the daemon's own; nothing when neither
    // has it. An unreadable or malformed file counts as absent and is logged once per change of the file at
    // level 4.
    std::optional<PropertyList> value(std::string_view domain, std::string_view key);
    // The administrator's value alone: for what decides how far the process is confined, so that a daemon in
    // wrong hands can't set itself free for its next start.
    std::optional<PropertyList> administratorValue(std::string_view domain, std::string_view key);
    // As value(); nothing also when the value is no string.
    std::optional<std::string> string(std::string_view domain, std::string_view key);
    // As value(), read as PropertyList::integerValue.
    std::optional<int64_t> integer(std::string_view domain, std::string_view key);
    // As value(), read as PropertyList::boolValue; false when absent.
    bool boolean(std::string_view domain, std::string_view key);

    // Stores a value in the daemon's own file of that domain; durable when this returns. A domain that is no
    // file name, and a key or value that a property list can't hold, are refused with a reason. On any other
    // failure (with its reason) the value is still kept in memory for the life of the process, so that
    // identifiers stay stable meanwhile.
    tl::expected<void, std::string> set(std::string_view domain, std::string_view key, PropertyList value);
    // Removes keys from the daemon's own file, all with one writing. Removing an absent key succeeds.
    tl::expected<void, std::string> remove(std::string_view domain, const std::vector<std::string>& keys);

    // What the two files of a domain hold as they stand on the disk.
    struct Files {
        Dictionary administrator;
        Dictionary own;
    };
    Files files(std::string_view domain);

    // Whether this can be a domain's name: it names one file, and no path to elsewhere.
    static bool isDomain(std::string_view domain);

    ~UserDefaults();

  private:
    struct CachedFile;  // a file's content and the stat(2) data by which a change is noticed
    using Change = std::optional<PropertyList>;  // a new value, or nothing: the key is removed
    using Changes = std::map<std::string, Change, std::less<>>;

    // The content of a file as it is now, for the cost of one stat(2) where it has not changed.
    const Dictionary& current(const std::filesystem::path& path) TELVORA_REQUIRES(mutex_);
    tl::expected<void, std::string> change(std::string_view domain, Changes wanted);

    Mutex mutex_{LockRank::defaults};
    const std::filesystem::path administratorDirectory_;
    const std::filesystem::path ownDirectory_;
    std::map<std::filesystem::path, CachedFile> files_ TELVORA_GUARDED_BY(mutex_);
    // By domain, the changes that could not be written; they go along with the next one that is.
    std::map<std::string, Changes, std::less<>> unwritten_ TELVORA_GUARDED_BY(mutex_);
};

}  // namespace telvora
