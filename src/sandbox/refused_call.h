// SPDX-License-Identifier: Apache-2.0
//
// The reason for the log when a system call that confines the process fails.
#pragma once

#include <string>

namespace telvora {

// "CALL(2): ERROR", with the remedy where the error has a usual cause. `error` is an errno value.
std::string refusedCall(const std::string& call, int error);

}  // namespace telvora
