// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <signal.h>

namespace telvora {

// Blocks the signals of the calling thread for a scope, except those that a thread raises by its own faults.
// A thread that is started meanwhile inherits the mask: signals then go to the program's other threads, and a
// write to a closed socket fails instead of raising SIGPIPE.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_SETMASK, &blocked, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  private:
    sigset_t before_;
};

}  // namespace telvora
