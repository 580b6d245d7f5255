#pragma once

#include <csignal>
#include <functional>
#include <thread>

namespace pelm::platform::detail {

/// Turns SIGINT and SIGTERM into calls of `onSignal` on a thread of its own. The signal handler only writes
/// the signal's number to a pipe (all a handler may safely do). A second signal, 200 ms or more after the
/// first, ends the process as the signal's default action would, so that a second Ctrl-C ends a host that
/// hangs in its stop. One watch at a time; destroying it puts back the handling there was before.
class StopSignalWatch {
  public:
    /// Throws std::logic_error while another watch exists, std::system_error when the pipe, the handlers or
    /// the thread cannot be had.
    explicit StopSignalWatch(std::function<void(int signal)> onSignal);
    ~StopSignalWatch();
    StopSignalWatch(const StopSignalWatch&) = delete;
    StopSignalWatch& operator=(const StopSignalWatch&) = delete;

  private:
    void watch(const std::function<void(int signal)>& onSignal) const;
    void release();

    int pipe_[2] = {-1, -1};
    struct sigaction earlierInterrupt_ {};
    struct sigaction earlierTerminate_ {};
    std::thread thread_;
};

}  // namespace pelm::platform::detail
