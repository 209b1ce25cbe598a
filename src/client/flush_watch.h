// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "client/client_session.h"

namespace telvora {

// FlushWatch: finds the flushes that the daemon never answers: those of a session whose configuration names
// no backends. It combines two facts:
//
// - If no backend reports or is sampled out, the backends answer a flush at once, before the daemon reads the
//   session's next call. A probe (any call that is always answered) follows such a flush; if the probe is
//   answered first, the session has no backend that could answer the flush.
// - The answers to startConfig and fetchStates name the backends that report or are sampled out. A flush
//   belongs to the newest of these calls that was sent before it.
//
// Not for a session that follows a parent: the parent can make a backend report at any time. Used only on the
// session's strand.
class FlushWatch {
  public:
    // A flush that waits for its answer. The first answer completes it.
    class Flush {
      public:
        explicit Flush(Completion<FlushAnswer> completion) : completion_(std::move(completion)) {}
        void answered(tl::expected<FlushAnswer, CallFailure> answer) {
            Completion<FlushAnswer> completion = std::move(completion_);
            if (completion) completion(std::move(answer));
        }

      private:
        Completion<FlushAnswer> completion_;
    };
    using Suspects = std::vector<std::weak_ptr<Flush>>;

    // The error of such a flush.
    static constexpr char kNoBackends[] = "The session's bag names no backends";

    // Notes that a call is sent that may change the states; returns its number.
    size_t changeStates() { return ++statesChanged_; }
    // The number of the newest of these calls; 0 before the first.
    size_t newestStates() const { return statesChanged_; }
    // Notes the answer to the call of that number.
    void answerStates(size_t number, const ReportingStates& states);
    // Adds a flush that was sent when that call was the newest.
    void add(std::weak_ptr<Flush> flush, size_t number);

    // The flushes that need a probe; returns each of them once.
    Suspects takeSuspects();
    // Answers those of the flushes that still wait. Called when the probe after them was answered.
    static void convict(const Suspects& suspects);

  private:
    struct Sent {
        std::weak_ptr<Flush> flush;
        size_t states;  // the number of the call that it belongs to
    };

    size_t statesChanged_ = 0;
    size_t silentStates_ = 0;  // the newest call whose answer named no backend; 0 before the first
    std::vector<Sent> sent_;
};

}  // namespace telvora
