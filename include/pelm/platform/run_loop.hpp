#pragma once

#include <pelm/export.hpp>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include <pelm/platform/main_queue.hpp>

namespace pelm::platform {

/// A real-time main queue. The host runs it on a thread of its choice with `run()` (until `stop()`), or
/// drives it in slices with `runFor`/`runUntil`.
class PELM_EXPORT RunLoop final : public MainQueue {
  public:
    Date now() const override { return systemNow(); }
    void post(Task task) override;
    TimerId postAfter(std::chrono::milliseconds delay, Task task) override;
    void cancel(TimerId timer) override;

    /// Runs until `stop()` is called (from any thread, or from a task).
    void run();
    void stop();
    /// Runs for `duration`, then returns.
    void runFor(std::chrono::milliseconds duration);
    /// Runs until `done()` holds (checked after every task) or `timeout` passes; answers whether it held.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

  private:
    using SteadyTime = std::chrono::steady_clock::time_point;
    // Runs one due item, or waits for one until `deadline`; false once stopped or past the deadline.
    bool runOne(std::optional<SteadyTime> deadline);

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Task> ready_;
    std::multimap<SteadyTime, std::pair<TimerId, Task>> timers_;
    TimerId nextTimer_ = 1;
    bool stopping_ = false;
};

}  // namespace pelm::platform
