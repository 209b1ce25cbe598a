// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "client/client_session.h"

namespace telvora {

template <typename T>
class CompletionOnce;

// FlushWatch: finds the flushes that the daemon never answers, those of a session whose configuration names
// no backends. It combines two facts:
//
// - Where no backend reports or is sampled out, backends answer a flush at once, and so before the daemon
//   looks at the session's next call. A probe, any call that is always answered, follows such a flush; when
//   the probe is answered first, there was no backend to answer the flush.
// - The answers to startConfig and fetchStates name the backends that report or are sampled out. A flush
//   counts under the newest of these calls that was sent before it.
//
// Only for a session that follows no parent: a parent can make a backend report at any time. Used on the
// session's strand alone.
class FlushWatch {
  public:
    using Flush = CompletionOnce<FlushAnswer>;
    using Suspects = std::vector<std::weak_ptr<Flush>>;

    // The error that the caller of such a flush is given.
    static constexpr char kNoBackends[] = "The session's bag names no backends";

    // A call is being sent that may change the states. Its number.
    size_t changeStates() { return ++statesChanged_; }
    // The number of the newest of these calls; 0: none.
    size_t newestStates() const { return statesChanged_; }
    // The answer to the call of that number.
    void answerStates(size_t number, const ReportingStates& states);
    // A flush was sent when that call was the newest.
    void add(std::weak_ptr<Flush> flush, size_t number);

    // The flushes to send a probe after, each of them once.
    Suspects takeSuspects();
    // The probe after these was answered; those that still wait are given their answer.
    static void convict(const Suspects& suspects);

  private:
    struct Sent {
        std::weak_ptr<Flush> flush;
        size_t states;  // the number of the call that it counts under
    };

    size_t statesChanged_ = 0;
    size_t silentStates_ = 0;  // the newest call whose answer named no backend; 0: none
    std::vector<Sent> sent_;
};

}  // namespace telvora
