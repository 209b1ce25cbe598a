// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace telvora {

// Lets the process have as many file descriptors as the kernel allows it: raises the soft limit RLIMIT_NOFILE
// to the hard one (getrlimit(2)). Every client costs a descriptor. For programs that never call select(2),
// which knows only the first 1024. Left as it is, with a line at level 7, when the kernel refuses.
void raiseDescriptorLimit();

}  // namespace telvora
