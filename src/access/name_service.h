// SPDX-License-Identifier: Apache-2.0
//
// User and group IDs by name (getpwnam_r(3), getgrnam_r(3)), and from configuration values. May ask a server
// and block; callable from any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "plist/property_list.h"

namespace telvora {

// The ID of that name; std::nullopt if the name is unknown or the name service failed.
std::optional<uid_t> userId(const std::string& name);
std::optional<gid_t> groupId(const std::string& name);

// Whether the value can denote a user or a group: a non-empty name, or a number that is an ID.
bool isNameOrId(const PropertyList& value);
// The ID that such a value denotes; a name of digits only is a number.
std::optional<uid_t> userIdFrom(const PropertyList& nameOrId);
std::optional<gid_t> groupIdFrom(const PropertyList& nameOrId);

}  // namespace telvora
