// SPDX-License-Identifier: Apache-2.0
//
// What the daemon finds in its directories, for the commands that read or change that.
#pragma once

#include <string>
#include <tl/expected.hpp>

#include "command.h"
#include "platform/directories.h"
#include "platform/user_defaults.h"

namespace telvora::ctl {

// At first, the superuser becomes the owner of the daemon's state directory: so all is seen as the daemon
// sees it, and what is written belongs to the daemon.
class Settings {
  public:
    static tl::expected<Settings, std::string> open();

    const Directories& directories() const { return directories_; }
    UserDefaults& defaults() { return *defaults_; }

    // A Status, with a line on standard error unless it is kDone.
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
