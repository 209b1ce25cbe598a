// SPDX-License-Identifier: Apache-2.0
//
// Reading of the daemon's answers to administrators.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "device_answer.h"
#include "plist/property_list.h"

namespace telvora::ctl {

// The daemon's status. Waits for the daemon as long as `common` says.
tl::expected<Dictionary, Failure> awaitStatus(const CommonOptions& common);

// The dictionary under a key; an empty one if it is absent.
const Dictionary& dictionaryIn(const Dictionary& parent, std::string_view key);
// The dictionaries in the array under a key.
std::vector<Dictionary> entriesIn(const Dictionary& parent, std::string_view key);
// The value under a key for people, in one line and safe for a terminal; "-" if it is absent.
std::string text(const Dictionary& values, std::string_view key);
// "3 s", "5 min", "2 h"
std::string durationText(double seconds);
// The time since a date under a key: "3 s ago".
std::string ageText(const Dictionary& values, std::string_view key);
// The accounts of the run of this status and of all runs before it: {since (d), clientTypes}, as allRuns.
Dictionary sumsOfAllRuns(const Dictionary& status);
// Why reports that are not realtime are held: "the link is metered", "the device runs on battery", or both;
// "" if they are not held.
std::string holdText(const Dictionary& status);
// The result of a request: the HTTP status, or the reason why no answer came.
std::string outcomeText(const Dictionary& outcome);

}  // namespace telvora::ctl
