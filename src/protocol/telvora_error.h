// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "telvora/keys.h"

namespace telvora {

// An error as clients see it; on the wire (sis).
struct TelvoraError {
    std::string domain;
    int32_t code = 0;  // -1 for a local condition, else the HTTP status of the server's answer
    std::string description;

    friend bool operator==(const TelvoraError&, const TelvoraError&) = default;
};

// An error of the domain kTelvoraErrorDomain.
inline TelvoraError makeTelvoraError(std::string message, int32_t code) {
    return {kTelvoraErrorDomain, code, std::move(message)};
}

}  // namespace telvora
