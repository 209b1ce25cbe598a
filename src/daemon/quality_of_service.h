// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace telvora {

// Gives the calling thread, and every thread that it starts from now on, the service of a background utility:
// nice 5 (setpriority(2)), best-effort I/O priority 6 (ioprio_set(2)) and a timer slack of 50 ms (prctl(2)).
// So main calls it first. A part that the kernel refuses is left as it is and logged at level 7.
void setUtilityQualityOfService();

}  // namespace telvora
