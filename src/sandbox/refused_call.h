// SPDX-License-Identifier: Apache-2.0
//
// Reasons for failures of system calls that confine the process.
#pragma once

#include <string>

namespace telvora {

// "CALL(2): ERROR", with the remedy if the error has a usual cause. `error`: an errno value.
std::string refusedCall(const std::string& call, int error);

}  // namespace telvora
