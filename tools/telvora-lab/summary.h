// SPDX-License-Identifier: Apache-2.0
//
// The received data as one value, for the end of a run.
#pragma once

#include <filesystem>

#include "telvora-lab/laboratory.h"

namespace telvora::lab {

// All data that the servers keep. Writes each uploaded file to a file of its own in uploads/ of `directory`.
Dictionary summaryOf(Laboratory& laboratory, const std::filesystem::path& directory);

}  // namespace telvora::lab
