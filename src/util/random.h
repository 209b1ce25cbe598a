// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/random.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace telvora {

// Random bytes of the kernel, getrandom(2). std::nullopt if it gives none. Callable from any thread.
template <size_t size>
std::optional<std::array<uint8_t, size>> randomBytes() {
    static_assert(size <= 256, "more could arrive in parts");
    std::array<uint8_t, size> bytes;
    if (getrandom(bytes.data(), size, 0) != static_cast<ssize_t>(size)) return std::nullopt;
    return bytes;
}

}  // namespace telvora
