// SPDX-License-Identifier: Apache-2.0
//
// ProcessRuntime: the state that all sessions of libtelvora share in one process, and its behaviour at
// fork(2) and exit(3). The C interface passes no context, so the object is global.
//
// It is never destroyed: its thread, and the application's, may use it until the process ends. A child
// process makes its own. The parent's stays in the child's memory unused: a thread that does not exist in the
// child may hold its locks.
#pragma once

#include <atomic>
#include <condition_variable>

#include "client/client_runtime.h"

namespace telvora {

class ProcessRuntime {
  public:
    // How long exit(3) waits for answers.
    static constexpr std::chrono::milliseconds kExitPatience{250};

    // The object of this process; the first use makes it. Throws std::bad_alloc.
    static ProcessRuntime& ofThisProcess();
    ProcessRuntime(const ProcessRuntime&) = delete;
    ProcessRuntime& operator=(const ProcessRuntime&) = delete;

    ClientRuntime& client() { return client_; }
    // Whether the calling process has forked from the one that this belongs to.
    bool inherited() const;
    // Whether exit(3) has begun: no callback of the application may start then.
    bool exiting() const { return exiting_.load(); }

    // Begin and end of work that exit(3) waits for.
    void workBegins() { ++work_; }
    void workEnds();

    // Exists while the application's code runs on the library's thread.
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
    std::mutex lock_;  // for the condition only: work_ is atomic
    std::condition_variable workDone_;
};

}  // namespace telvora
