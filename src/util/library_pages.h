// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace telvora {

// Unmaps the pages of the program and its libraries that no one has written to. Loading a library reads its
// tables of symbols and relocations and runs its set-up code, of which nothing is needed later: for libcurl
// and the thirty libraries behind it, 3 MB. A page that is needed comes back at its next use, mostly from the
// page cache (MADV_DONTNEED, madvise(2)). Thread-safe; other threads may run meanwhile.
void unmapLoadedPages();

}  // namespace telvora
