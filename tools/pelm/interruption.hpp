#pragma once

#include <csignal>
#include <cstdint>

namespace pelm::cli {

/// Ctrl-C and SIGTERM, held back from construction on and taken between the steps of a run, so that an
/// interrupted run still ends cleanly: its temporary folders removed, what it wrote finished. Make it before
/// any thread starts (the signals stay blocked in threads made later, so none of them takes one).
class Interruption {
  public:
    Interruption() {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    }
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// True once a stop signal has arrived; it stays true.
    bool requested() {
        if (received_ != 0) return true;
        const timespec now{0, 0};
        const int signal = sigtimedwait(&signals_, nullptr, &now);
        if (signal > 0) received_ = signal;
        return received_ != 0;
    }
    /// The same, asking the kernel only every `every`-th call: for loops that run a million times a second.
    bool requestedEvery(std::uint32_t every) {
        return received_ != 0 || (++calls_ % every == 0 && requested());
    }
    /// The exit code of a run ended by the signal: 128 + its number, as a shell reports it.
    int exitCode() const { return 128 + received_; }

  private:
    sigset_t signals_{};
    int received_ = 0;
    std::uint32_t calls_ = 0;
};

}  // namespace pelm::cli
