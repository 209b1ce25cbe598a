// SPDX-License-Identifier: Apache-2.0
//
// ProcessRuntime: what all sessions of libtelvora share in one process, and what becomes of it when the
// process forks or exits. A C interface has no other place for it than the process itself.
//
// It is never destroyed: its thread, and the application's, may use it until the process is gone. A child
// process makes its own; the parent's stays in its memory untouched, with locks that a thread which the child
// does not have may hold.
#pragma once

#include <atomic>
#include <condition_variable>

#include "client/client_runtime.h"

namespace telvora {

class ProcessRuntime {
  public:
    // How long exit(3) waits for answers.
    static constexpr std::chrono::milliseconds kExitPatience{250};

    // This process's; made by the first use. Throws std::bad_alloc.
    static ProcessRuntime& ofThisProcess();
    ProcessRuntime(const ProcessRuntime&) = delete;
    ProcessRuntime& operator=(const ProcessRuntime&) = delete;

    ClientRuntime& client() { return client_; }
    // Whether the calling process has forked from the one that this belongs to.
    bool inherited() const;
    // Whether exit(3) has begun: no callback of the application may begin then.
    bool exiting() const { return exiting_.load(); }

    // Bracket what exit(3) waits for.
    void workBegins() { ++work_; }
    void workEnds();

    // While the application's code runs on the library's thread.
    class Callback {
      public:
        Callback() { running = true; }
        ~Callback() { running = false; }
        Callback(const Callback&) = delete;
        Callback& operator=(const Callback&) = delete;
        static bool isRunning() { return running; }

      private:
        static thread_local bool running;
    };

  private:
    ProcessRuntime();
    static void atExit();

    static std::atomic<ProcessRuntime*> current;

    const unsigned forks_;  // that led to the process that this was made in
    ClientRuntime client_;
    std::atomic<bool> exiting_ = false;
    std::atomic<size_t> work_ = 0;
    std::mutex lock_;  // for the condition only: what it waits for is atomic
    std::condition_variable workDone_;
};

}  // namespace telvora
