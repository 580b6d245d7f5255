#pragma once

#include <csignal>

namespace pelm::server {

/// Keeps SIGINT and SIGTERM from interrupting this thread and every thread started after this call, so that
/// waitForStopSignal alone receives them. Call it before the server starts its threads.
inline void blockStopSignals() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

/// Returns as soon as SIGINT or SIGTERM arrives (the signal's number), with no polling delay.
inline int waitForStopSignal() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    int received = 0;
    while (sigwait(&stop, &received) != 0) {
    }
    return received;
}

}  // namespace pelm::server
