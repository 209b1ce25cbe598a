// SPDX-License-Identifier: Apache-2.0
//
// Random identifiers, from getrandom(2). Thread-safe. The process ends if the kernel gives no random
// numbers: an identifier that repeats would be worse.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace telvora {

// The 16 bytes of a fresh random UUID (RFC 4122, version 4).
std::array<uint8_t, 16> randomUuidBytes();

// A fresh random UUID in its usual upper-case form, 36 characters.
std::string randomUuidString();

// A random number in [0, 1) with 48 bits of state, uniformly distributed.
double uniformRandom48();

}  // namespace telvora
