// SPDX-License-Identifier: Apache-2.0
//
// Conversion between the handles of the C interface and the objects behind them. Handles of values and
// answers are the objects' own addresses, as pointers to incomplete types; the application borrows the
// objects.
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

// The value as a dictionary; null if it is of another type.
inline const Dictionary* dictionaryIn(const telvora_value* value) {
    return value != nullptr ? unwrap(value)->getIf<Dictionary>() : nullptr;
}

// Copies an optional argument; NULL leaves `into` empty. False if the value is of another type.
template <typename T>
bool take(const telvora_value* value, std::optional<T>& into) {
    if (value == nullptr) return true;
    const T* found = unwrap(value)->getIf<T>();
    if (found != nullptr) into = *found;
    return found != nullptr;
}

// No exception crosses the C interface: the result of `body`, or `shortage` if it throws.
template <typename R, typename Body>
R guarded(R shortage, Body body) noexcept {
    try {
        return body();
    } catch (...) {
        return shortage;
    }
}

}  // namespace telvora
