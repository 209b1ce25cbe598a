// SPDX-License-Identifier: Apache-2.0
//
// The rule by which users and servers share a limited resource.
#pragma once

#include <cstddef>

namespace telvora {

// Whether one that holds `held` may take `amount` more while `free` is left. It may hold `weight` times as
// much as then remains: alone half of the resource with weight 1, two thirds with weight 2. So newcomers
// always find a part that is free. The first amount only has to fit.
constexpr bool isWithinShare(size_t held, size_t amount, size_t free, size_t weight = 1) {
    return amount <= free && (held == 0 || held + amount <= weight * (free - amount));
}

}  // namespace telvora
