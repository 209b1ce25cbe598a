// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <tl/expected.hpp>

#include "platform/property_list.h"

namespace telvora {

// The binary form of a value (for its layout see property_list_guard_binary.cpp), in time and memory that
// grow with the value's size alone. libplist's own writer finds equal values by a hash whose collisions
// anybody can construct; a client's few thousand strings could then keep a thread busy for a minute. Fails
// with a reason as serializePropertyList does. Thread-safe.
tl::expected<std::string, std::string> writeBinaryPropertyList(const PropertyList& value);

}  // namespace telvora
