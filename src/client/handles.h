// SPDX-License-Identifier: Apache-2.0
//
// Between the handles of the C interface and what is behind them. Values and answers are lent to the
// application where they stand: their handles are the objects' own addresses, of types that nobody defines.
#pragma once

#include <memory>
#include <new>
#include <system_error>

#include "client/application_session.h"
#include "client/recorder.h"

struct telvora_session {
    std::shared_ptr<telvora::ApplicationSession> session;
};

struct telvora_recorder {
    std::shared_ptr<telvora::Recorder> recorder;
};

namespace telvora {

inline const telvora_value* wrap(const PropertyList* value) {
    return reinterpret_cast<const telvora_value*>(value);
}
inline telvora_value* wrap(PropertyList* value) {
    return reinterpret_cast<telvora_value*>(value);
}
inline const PropertyList* unwrap(const telvora_value* value) {
    return reinterpret_cast<const PropertyList*>(value);
}
inline PropertyList* unwrap(telvora_value* value) {
    return reinterpret_cast<PropertyList*>(value);
}
inline const telvora_answer* wrap(const Answer* answer) {
    return reinterpret_cast<const telvora_answer*>(answer);
}
inline const Answer* unwrap(const telvora_answer* answer) {
    return reinterpret_cast<const Answer*>(answer);
}

// The dictionary that the value is, or null.
inline const Dictionary* dictionaryIn(const telvora_value* value) {
    return value != nullptr ? unwrap(value)->getIf<Dictionary>() : nullptr;
}

// A value that an argument gives as a pointer: nothing for NULL. False when it is of another type.
template <typename T>
bool take(const telvora_value* value, std::optional<T>& into) {
    if (value == nullptr) return true;
    const T* found = unwrap(value)->getIf<T>();
    if (found != nullptr) into = *found;
    return found != nullptr;
}

// Nothing is thrown across the C interface: runs `body`, which returns `R`; `shortage` where it throws.
template <typename R, typename Body>
R guarded(R shortage, Body body) noexcept {
    try {
        return body();
    } catch (...) {
        return shortage;
    }
}

}  // namespace telvora
