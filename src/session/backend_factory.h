// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "backends/telvora_backend.h"

namespace telvora {

// Makes the backend that a bag's key names. Safe from any thread.
class BackendFactory {
  public:
    // `services` must outlive the factory and every backend that it makes.
    explicit BackendFactory(const BackendServices& services) : services_(services) {}

    // A new backend, or nothing: for a name that is no backend's (with a line at level 3), and where the
    // backend's own construction fails (each class says when, and logs it).
    std::shared_ptr<TelvoraBackend> newBackendWithName(const std::string& name, BackendProfile profile,
                                                       const std::optional<std::string>& productFamily,
                                                       int32_t clientType) const;

  private:
    const BackendServices& services_;
};

}  // namespace telvora
