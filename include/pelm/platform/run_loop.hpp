#pragma once

#include <pelm/export.hpp>

#include <chrono>
#include <functional>
#include <memory>

#include <pelm/platform/main_queue.hpp>

namespace pelm::platform {

/// A real-time main queue. The host runs it on a thread of its choice with `run()` (until `stop()`), or
/// drives it in slices with `runFor`/`runUntil`.
/// \ingroup host_api
class PELM_EXPORT RunLoop final : public MainQueue {
  public:
    RunLoop();
    ~RunLoop() override;
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    /// The system clock's now.
    Date now() const override { return systemNow(); }
    void post(Task task) override;
    TimerId postAfter(std::chrono::milliseconds delay, Task task) override;
    void cancel(TimerId timer) override;

    /// Runs until `stop()` is called (from any thread, or from a task).
    void run();
    /// Ends run() after the task it runs; from any thread.
    void stop();
    /// Runs for `duration`, then returns.
    void runFor(std::chrono::milliseconds duration);
    /// Runs until `done()` holds (checked after every task) or `timeout` passes; answers whether it held.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    /// Calls `handler` on this loop, with the signal's number, when the process gets SIGINT or SIGTERM:
    /// how a host stops cleanly on Ctrl-C or `kill` (the README's "Stopping" shows the order). `handler` is
    /// called once. A second signal ends the process at once, as it would have without this, when it comes
    /// 200 ms or more after the first; sooner, it is taken for the same one (wrappers such as timeout(1)
    /// pass one Ctrl-C on twice).
    /// One loop at a time may watch them (a second call on the same loop replaces `handler`); when it is
    /// destroyed, the handling there was before returns.
    /// Throws std::logic_error when another loop watches them, std::system_error when the signals cannot
    /// be handled.
    void onStopSignal(std::function<void(int signal)> handler);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace pelm::platform
