// SPDX-License-Identifier: Apache-2.0
//
// ApplicationSession: the object behind a telvora_session. It counts the calls and callbacks under way, so
// that the application can wait for them, and runs the application's callbacks as long as they may run.
#pragma once

#include <atomic>
#include <condition_variable>
#include <utility>

#include "client/process_runtime.h"
#include "client/session_target.h"

namespace telvora {

class ApplicationSession : public std::enable_shared_from_this<ApplicationSession> {
  public:
    // `options` have all members of this version.
    static std::shared_ptr<ApplicationSession> make(const telvora_session_options& options);

    // See telvora.h.
    telvora_status call(Request request, telvora_completion completion, void* context);
    telvora_status uploadFile(const char* path, telvora_completion completion, void* context);
    telvora_status wait(int64_t milliseconds) TELVORA_EXCLUDES(lock_);
    void end() TELVORA_EXCLUDES(lock_);
    uint64_t lostCalls() const { return inherited() ? 0 : target_->lostCalls(); }

    // In a forked child no other function may be called, not even the destructor.
    bool inherited() const { return runtime_.inherited(); }

  private:
    // wait() and end() wait until all objects of this class are destroyed. A session lives as long as its
    // work.
    class Work {
      public:
        explicit Work(ApplicationSession& session) : session_(&session) { session.workBegins(); }
        ~Work() {
            if (session_ != nullptr) session_->workEnds();
        }
        Work(Work&& other) noexcept : session_(std::exchange(other.session_, nullptr)) {}
        Work& operator=(Work&&) = delete;

        ApplicationSession* operator->() const { return session_; }

      private:
        ApplicationSession* session_;
    };

    explicit ApplicationSession(const telvora_session_options& options);
    SessionTarget::Handlers handlers();
    void workBegins() TELVORA_EXCLUDES(lock_);
    void workEnds() TELVORA_EXCLUDES(lock_);
    template <typename Run>
    void runHandler(Run run) TELVORA_EXCLUDES(lock_);
    void answered(const Answer& answer, telvora_completion completion, void* context);
    telvora_status failed(telvora_status status) TELVORA_EXCLUDES(lock_);

    ProcessRuntime& runtime_;
    const telvora_session_options options_;  // its strings must not be used later
    std::shared_ptr<SessionTarget> target_;  // set once, by make()

    Mutex lock_;
    std::condition_variable_any workDone_;
    std::atomic<size_t> work_ = 0;
    // Refers to this session while it has work.
    std::shared_ptr<ApplicationSession> kept_ TELVORA_GUARDED_BY(lock_);
    size_t keepers_ TELVORA_GUARDED_BY(lock_) = 0;  // beginnings of work, less its ends
    telvora_status firstFailure_ TELVORA_GUARDED_BY(lock_) = TELVORA_OK;
    std::atomic<bool> ended_ = false;
};

}  // namespace telvora
