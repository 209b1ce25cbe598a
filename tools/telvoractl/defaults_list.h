// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "command.h"
#include "platform/known_settings.h"

namespace telvora::ctl {

// Prints all settings with their values. Returns a Status, after a line on standard error unless it is kDone.
int listSettings(const CommonOptions& common);

// The reason why the daemon would not use a value that is written to its own file, with a suggestion for a
// misspelt name; std::nullopt if it would.
std::optional<std::string> whyWithoutEffect(const std::string& domain, const std::string& key,
                                            const PropertyList& value);

// "{a,b}": the known domains, and the keys of all settings, as the completion reads them.
std::string knownDomains();
std::string knownKeys();

}  // namespace telvora::ctl
