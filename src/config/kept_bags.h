// SPDX-License-Identifier: Apache-2.0
//
// KeptBags: the last fetch of each bag in a file, so that a new process goes on where the last one ended:
// with the bag, its age and its date, and with the wait after a failed fetch. One file a bag in a directory
// of the state directory. The signed document is kept, and verified again before use.
//
// A file counts only for the address from which the bag was fetched. Blocks on file I/O, as a BlockingSection
// (work_pool.h). Belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace telvora {

struct KeptBag {
    std::string url = {};       // without the query
    std::string document = {};  // signed; empty: no fetch has succeeded yet
    std::optional<std::string> lastModified = {};
    double fetchTime = 0;  // of the last attempt, seconds since 1970
    int32_t maxAge = 0;    // seconds
    bool fetchSuccessful = false;
};

class KeptBags {
  public:
    explicit KeptBags(std::filesystem::path directory) : directory_(std::move(directory)) {}

    // The bag of that name, if it was fetched from that address. std::nullopt without a file, and with a line
    // at level 4 if it can't be read.
    std::optional<KeptBag> load(const std::string& name, const std::string& url) const;
    // Replaces the file. A failure is logged at level 4.
    void save(const std::string& name, const KeptBag& bag) const;
    // Removes the directory with all files. Whether there was one.
    bool removeAll() const;

  private:
    std::filesystem::path fileOf(const std::string& name) const { return directory_ / (name + ".plist"); }

    const std::filesystem::path directory_;
};

}  // namespace telvora
