// SPDX-License-Identifier: Apache-2.0
//
// When a server program ends: at SIGTERM, SIGINT or the end of standard input.
#pragma once

#include "util/unique_fd.h"

namespace telvora::lab {

class EndOfRun {
  public:
    // Takes the two signals; to be made before any thread exists, so that none of them gets them.
    EndOfRun();

    // Reads standard input, unless `ignoreInput`, and drops what comes.
    void wait(bool ignoreInput) const;

  private:
    UniqueFd signals_;
};

}  // namespace telvora::lab
