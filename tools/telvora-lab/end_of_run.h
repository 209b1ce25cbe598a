// SPDX-License-Identifier: Apache-2.0
//
// Ends a server program at SIGTERM, SIGINT or the end of standard input.
#pragma once

#include "util/unique_fd.h"

namespace telvora::lab {

class EndOfRun {
  public:
    // Blocks the two signals. Construct it before any thread, so that all threads inherit the mask.
    EndOfRun();

    // Reads and discards standard input, unless `ignoreInput`. Returns at the end of the run.
    void wait(bool ignoreInput) const;

  private:
    UniqueFd signals_;
};

}  // namespace telvora::lab
