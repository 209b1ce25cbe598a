// SPDX-License-Identifier: Apache-2.0
//
// The numbers of users and groups by name (getpwnam_r(3), getgrnam_r(3)). May ask a server and block;
// callable from any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace telvora {

// Nothing: there is none of that name, or the name service failed.
std::optional<uid_t> userId(const std::string& name);
std::optional<gid_t> groupId(const std::string& name);

}  // namespace telvora
