#pragma once

#include <pelm/export.hpp>

#include <chrono>
#include <cstdint>
#include <functional>

#include <pelm/platform/clock.hpp>

namespace pelm::platform {

/// The one library thread: work posted here runs one item at a time, in the order posted. Its clock is the
/// library's "now". Posting is safe from any thread; everything else belongs to the queue's own thread.
class PELM_EXPORT MainQueue : public Clock {
  public:
    /// A piece of work for the library's thread.
    using Task = std::function<void()>;
    /// Names a timer, for cancel().
    using TimerId = std::uint64_t;

    /// Runs `task` on the queue, after everything posted before it.
    virtual void post(Task task) = 0;
    /// Runs `task` once `delay` has passed on the queue's clock.
    virtual TimerId postAfter(std::chrono::milliseconds delay, Task task) = 0;
    /// Cancels a timer that has not run yet; does nothing otherwise.
    virtual void cancel(TimerId timer) = 0;

    /// Work started off the queue (a server call) whose result will come back as a task. A virtual-time
    /// queue does not move its clock while such work is outstanding and runs the results in the order the
    /// work began, so a run against a real server gives the same timeline every time. Every ticket is
    /// finished exactly once, from any thread.
    using Ticket = std::uint64_t;
    /// Tells the queue that work off it has begun whose result it will receive.
    virtual Ticket beginExternalWork() { return 0; }
    /// Hands that work's result to the queue, to run as a task.
    virtual void finishExternalWork(Ticket /*ticket*/, Task result) { post(std::move(result)); }
};

}  // namespace pelm::platform
