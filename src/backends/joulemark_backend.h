// SPDX-License-Identifier: Apache-2.0
//
// JoulemarkBackend: records reports in the power log.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "backends/telvora_backend.h"

namespace telvora {

class JoulemarkBackend final : public TelvoraBackend {
  public:
    static std::shared_ptr<JoulemarkBackend> make(const BackendServices& services, std::string name,
                                                  BackendProfile profile, SharedIdentity identity);

    using TelvoraBackend::sendMessage;
    // Records one report, unless its method is 0 or its payload is empty. Returns no answer. Sessions call
    // only the operation with a flag, which this one does not override: their reports are not recorded.
    std::optional<std::string> sendMessage(const std::optional<Dictionary>& payload, TimeValue timestamp,
                                           uint16_t method, uint16_t respCode, EventID eventID);

  private:
    using TelvoraBackend::TelvoraBackend;
};

}  // namespace telvora
