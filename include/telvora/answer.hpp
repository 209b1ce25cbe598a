// SPDX-License-Identifier: Apache-2.0
//
// Result of an operation.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "telvora/value.hpp"

namespace telvora {
inline namespace v1 {

// Error of a backend; see telvora_answer_error().
struct Error {
    std::string domain;
    int32_t code = 0;
    std::string description;
};

// Result of an operation, as a copy.
struct Answer {
    Status status = TELVORA_OK;
    std::string message;  // description of the failure, for people
    Value value;          // may be empty
    std::optional<Error> error;

    bool ok() const { return status == TELVORA_OK; }
    std::optional<std::string_view> text() const { return value.view().string(); }

    Answer() = default;
    explicit Answer(const telvora_answer* answer)
        : status(telvora_answer_status(answer)),
          message(telvora_answer_message(answer)),
          value(View(telvora_answer_value(answer))) {
        const char* domain = nullptr;
        const char* description = nullptr;
        int32_t code = 0;
        if (telvora_answer_error(answer, &domain, &code, &description)) {
            error = Error{domain, code, description};
        }
    }
};

// Called on the library's thread. May be empty.
using Completion = std::function<void(const Answer& answer)>;

}  // namespace v1
}  // namespace telvora
