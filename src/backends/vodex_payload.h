// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "plist/property_list.h"
#include "telvora/vodex_adaptor.h"

namespace telvora {

// The functions through which an adaptor reads a payload. Lives as long as the process.
const telvora_vodex_host& vodexHost();

// The handle of a value for an adaptor, valid as long as the value. Null for null.
const telvora_vodex_value* vodexValue(const PropertyList* value);

}  // namespace telvora
