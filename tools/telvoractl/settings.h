// SPDX-License-Identifier: Apache-2.0
//
// Access to the daemon's directories for the commands that read or change settings.
#pragma once

#include <string>
#include <tl/expected.hpp>

#include "command.h"
#include "platform/directories.h"
#include "platform/user_defaults.h"

namespace telvora::ctl {

// Root first becomes the owner of the daemon's state directory: the command then has the daemon's
// permissions, and files that it writes belong to the daemon.
class Settings {
  public:
    // For writing. Fails with the reason.
    static tl::expected<Settings, std::string> open();
    // For reading. Fails also if the caller may not read a file that is there: to count its values as absent
    // would be a wrong answer.
    static tl::expected<Settings, std::string> openReadable();

    const Directories& directories() const { return directories_; }
    UserDefaults& defaults() { return *defaults_; }

    // Returns a Status, after a line on standard error unless it is kDone.
    int write(const std::string& domain, const std::string& key, PropertyList value);
    int remove(const std::string& domain, const std::vector<std::string>& keys);

  private:
    int done(const tl::expected<void, std::string>& written, const std::string& domain,
             const std::vector<std::string>& keys);

    Directories directories_ = Directories::fromEnvironment();
    std::unique_ptr<UserDefaults> defaults_ =
        std::make_unique<UserDefaults>(directories_.configuration, directories_.state);
};

}  // namespace telvora::ctl
