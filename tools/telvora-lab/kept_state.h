// SPDX-License-Identifier: Apache-2.0
//
// The state of a laboratory that a later run uses again, besides its keys (lab_pki.h): ports, the page's
// token and bags. It is in the files lab.plist and bags/NAME.plist of a directory.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <tl/expected.hpp>

#include "plist/property_list.h"
#include "telvora-lab/laboratory.h"

namespace telvora::lab {

struct KeptState {
    Ports ports;
    int pagePort = 0;
    std::string token;                       // empty: none yet
    std::map<std::string, Dictionary> bags;  // with their placeholders
};

// Whether bags of that name can be kept: letters, digits, '.', '_' and '-', 64 at most, no '.' in front.
bool isBagName(std::string_view name);

// The kept state; an empty one if the directory has none. Fails with a reason if a file is malformed.
tl::expected<KeptState, std::string> readKeptState(const std::filesystem::path& directory);

// Writes ports and token. Fails with a reason.
tl::expected<void, std::string> writeKeptState(const std::filesystem::path& directory,
                                               const KeptState& state);
tl::expected<void, std::string> writeKeptBag(const std::filesystem::path& directory, const std::string& name,
                                             const Dictionary& bag);

}  // namespace telvora::lab
