#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>

#include <pelm/platform/main_queue.hpp>

namespace pelm::testing {

/// A main queue in virtual time: the clock moves only when `advance` is called, timers fire at their exact
/// virtual instants, and while outside work (a server call) is outstanding the clock waits for its result.
/// Outside results run only when nothing else is ready, in the order their work began.
/// Posting is safe from any thread; `advance` and `runUntilIdle` belong to the thread that drives the loop.
/// \ingroup testing_kit
class VirtualLoop final : public platform::MainQueue {
  public:
    /// A loop whose clock starts at `start`.
    explicit VirtualLoop(Date start = Date{std::chrono::milliseconds{1'700'000'000'000}});

    Date now() const override;
    void post(Task task) override;
    TimerId postAfter(std::chrono::milliseconds delay, Task task) override;
    void cancel(TimerId timer) override;
    Ticket beginExternalWork() override;
    void finishExternalWork(Ticket ticket, Task result) override;

    /// Runs everything that is ready, waiting for outstanding outside work, without moving the clock.
    void runUntilIdle();
    /// Moves the clock forward by `by`, running each timer at its instant and everything it causes.
    void advance(std::chrono::milliseconds by);
    /// Moves the clock to the next timer and runs it; false when no timer is pending.
    bool advanceToNextTimer();
    /// How many timers wait.
    std::size_t pendingTimers() const;

  private:
    bool runReady(std::unique_lock<std::mutex>& lock);

    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    Date now_;
    std::deque<Task> ready_;
    std::multimap<Date, std::pair<TimerId, Task>> timers_;
    TimerId nextTimer_ = 1;
    // Outside work by ticket: none yet (still running) or its result, released in ticket order.
    std::map<Ticket, std::optional<Task>> external_;
    Ticket nextTicket_ = 1;
};

}  // namespace pelm::testing
