// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "plist/property_list.h"
#include "telvora/vodex_adaptor.h"

namespace telvora {

// The functions by which an adaptor reads a payload.
const telvora_vodex_host& vodexHost();

// A value as an adaptor gets it, valid as long as the value; null for null.
const telvora_vodex_value* vodexValue(const PropertyList* value);

}  // namespace telvora
