// SPDX-License-Identifier: Apache-2.0
//
// attempt(): a step that the steps after it do not depend on.
#pragma once

#include <new>
#include <utility>

#include "util/log.h"

namespace telvora {

// Runs the step. False, with a line at level 3, if there is no memory for it: then std::bad_alloc has left
// it. `place`: for the line.
template <typename Step>
bool attempt(const char* place, Step&& step) {
    try {
        std::forward<Step>(step)();
        return true;
    } catch (const std::bad_alloc&) {
        TELVORA_LOG(kLogError, "%s: There is no memory", place);
        return false;
    }
}

}  // namespace telvora
