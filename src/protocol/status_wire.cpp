// SPDX-License-Identifier: Apache-2.0
#include "protocol/status_wire.h"

namespace telvora {

const BusInterface& statusBusInterface() {
    static const BusInterface interface(
        "com.zandor.telvorad.Status",
        {{"GetStatus", {}, {{"status", "a{sv}"}}}, {"GetDevice", {}, {{"properties", "a{sv}"}}}});
    return interface;
}

}  // namespace telvora
