// SPDX-License-Identifier: Apache-2.0
//
// Calls of sessions without a daemon, for the tests of applications.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <vector>

#include "telvora/message.hpp"

namespace telvora {
inline namespace v1 {

// Replaces the daemon in tests; see "Recorders" in telvora.h.
class Recorder {
  public:
    Recorder() : recorder_(telvora_recorder_new()) {
        if (!recorder_) throw std::bad_alloc();
    }
    // Sets the answer to later calls of an operation, or of all operations if `operation` is null.
    void answer(const char* operation, Status status, View value = {}) {
        if (telvora_recorder_answer(recorder_.get(), operation, status, value.get()) != TELVORA_OK)
            throw std::bad_alloc();
    }
    Status deliver(const Message& message) {
        return telvora_recorder_deliver(recorder_.get(), message.sessionInfo.get(),
                                        message.timestamp.time_since_epoch().count(), message.category,
                                        message.type, message.payload.get());
    }
    // Copies of the stored calls, in the form that telvora.h describes.
    std::vector<Value> calls() const {
        std::vector<Value> calls(telvora_recorder_count(recorder_.get()));
        for (size_t i = 0; i < calls.size(); ++i)
            calls[i] = Value::adopt(telvora_recorder_call_copy(recorder_.get(), i));
        return calls;
    }
    void clear() { telvora_recorder_clear(recorder_.get()); }
    telvora_recorder* get() const { return recorder_.get(); }

  private:
    struct Free {
        void operator()(telvora_recorder* recorder) const { telvora_recorder_free(recorder); }
    };
    std::unique_ptr<telvora_recorder, Free> recorder_;
};

}  // namespace v1
}  // namespace telvora
