// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/end_of_run.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

namespace telvora::lab {

EndOfRun::EndOfRun() {
    sigset_t endSignals;
    sigemptyset(&endSignals);
    sigaddset(&endSignals, SIGTERM);
    sigaddset(&endSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
    signals_.reset(signalfd(-1, &endSignals, SFD_CLOEXEC));
}

void EndOfRun::wait(bool ignoreInput) const {
    pollfd sources[] = {{signals_.get(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    const nfds_t count = ignoreInput ? 1 : 2;
    char buffer[4096];
    while (true) {
        if (poll(sources, count, -1) < 0) continue;
        if (sources[0].revents != 0) return;
        if (!ignoreInput && sources[1].revents != 0 && read(STDIN_FILENO, buffer, sizeof buffer) <= 0) return;
    }
}

}  // namespace telvora::lab
