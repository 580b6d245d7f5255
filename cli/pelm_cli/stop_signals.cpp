#include "pelm_cli/stop_signals.hpp"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace pelm::cli {
namespace {

// Closer together than this, two signals are one press passed on twice.
constexpr std::chrono::milliseconds kSamePress{200};

sigset_t stopSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

struct State {
    std::atomic<int> received{0};
    std::atomic<const char*> exitLine{nullptr};
    std::mutex mutex;
    std::condition_variable arrived;
};

State& state() {
    static State shared;
    return shared;
}

// As if no one had watched: the default action of the signal, which ends the process.
[[noreturn]] void endBy(int signal) {
    struct sigaction defaults {};
    defaults.sa_handler = SIG_DFL;
    sigemptyset(&defaults.sa_mask);
    sigaction(signal, &defaults, nullptr);
    const auto set = stopSet();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    raise(signal);
    std::_Exit(128 + signal);
}

}  // namespace

StopSignals::StopSignals() {
    const auto set = stopSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([this] { run(); }).detach();
}

StopSignals& StopSignals::watch() {
    static StopSignals watcher;
    return watcher;
}

void StopSignals::run() {
    const auto set = stopSet();
    auto& shared = state();
    std::chrono::steady_clock::time_point first;
    for (;;) {
        int signal = 0;
        if (sigwait(&set, &signal) != 0) continue;
        if (shared.received.load() == 0) {
            first = std::chrono::steady_clock::now();
            if (const char* line = shared.exitLine.load()) {
                std::fprintf(stderr, "%s\n", line);
                std::fflush(nullptr);
                std::_Exit(128 + signal);
            }
            {
                std::lock_guard lock(shared.mutex);
                shared.received = signal;
            }
            shared.arrived.notify_all();
            continue;
        }
        if (std::chrono::steady_clock::now() - first >= kSamePress) endBy(signal);
    }
}

bool StopSignals::requested() const {
    return state().received.load(std::memory_order_relaxed) != 0;
}

int StopSignals::wait() const {
    auto& shared = state();
    std::unique_lock lock(shared.mutex);
    shared.arrived.wait(lock, [&] { return shared.received.load() != 0; });
    return shared.received.load();
}

int StopSignals::exitCode() const {
    const int signal = state().received.load();
    return signal == 0 ? 0 : 128 + signal;
}

void StopSignals::exitAtOnce(const char* line) {
    state().exitLine = line;
}

void StopSignals::stopExitingAtOnce() {
    state().exitLine = nullptr;
}

}  // namespace pelm::cli
