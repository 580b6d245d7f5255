#include <pelm/platform/run_loop.hpp>

#include <pelm/platform/stop_signal_watch.hpp>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>

namespace pelm::platform {

namespace detail {

// The queue itself: tasks ready to run, timers by their steady-clock deadline. It stands outside RunLoop, so
// that none of it is exported with the class.
struct QueueState {
    using SteadyTime = std::chrono::steady_clock::time_point;

    // Runs one due item, or waits for one until `deadline`; false once stopped or past the deadline.
    bool runOne(std::optional<SteadyTime> deadline);

    std::mutex mutex_;
    std::condition_variable wake_;
    // Tasks ready to run, with the id of the timer each came from (0 for a posted task), so that a timer
    // that fell due with others is still cancelled by a task that runs before it.
    std::deque<std::pair<MainQueue::TimerId, MainQueue::Task>> ready_;
    std::multimap<SteadyTime, std::pair<MainQueue::TimerId, MainQueue::Task>> timers_;
    MainQueue::TimerId nextTimer_ = 1;
    bool stopping_ = false;
};

}  // namespace detail

struct RunLoop::State : detail::QueueState {
    // Destroyed first, so that its thread is gone before the queue it posts to.
    std::unique_ptr<detail::StopSignalWatch> stopSignals;
};

RunLoop::RunLoop() : state_(std::make_unique<State>()) {}

RunLoop::~RunLoop() = default;

void RunLoop::post(Task task) {
    {
        std::lock_guard lock(state_->mutex_);
        state_->ready_.emplace_back(0, std::move(task));
    }
    state_->wake_.notify_one();
}

MainQueue::TimerId RunLoop::postAfter(std::chrono::milliseconds delay, Task task) {
    TimerId id;
    {
        std::lock_guard lock(state_->mutex_);
        id = state_->nextTimer_++;
        state_->timers_.emplace(std::chrono::steady_clock::now() + delay, std::pair{id, std::move(task)});
    }
    state_->wake_.notify_one();
    return id;
}

void RunLoop::cancel(TimerId timer) {
    std::lock_guard lock(state_->mutex_);
    for (auto it = state_->timers_.begin(); it != state_->timers_.end(); ++it) {
        if (it->second.first == timer) {
            state_->timers_.erase(it);
            return;
        }
    }
    // Fallen due already, behind other tasks: taken out of the ready queue. Posted tasks carry 0, no timer's
    // id.
    if (timer == 0) return;
    std::erase_if(state_->ready_, [timer](const auto& entry) { return entry.first == timer; });
}

bool detail::QueueState::runOne(std::optional<SteadyTime> deadline) {
    MainQueue::Task task;
    {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (stopping_) return false;
            const auto now = std::chrono::steady_clock::now();
            if (!timers_.empty() && timers_.begin()->first <= now) {
                // Due timers join the ready queue in deadline order, behind what was posted before.
                while (!timers_.empty() && timers_.begin()->first <= now) {
                    ready_.push_back(std::move(timers_.begin()->second));
                    timers_.erase(timers_.begin());
                }
            }
            if (!ready_.empty()) {
                task = std::move(ready_.front().second);
                ready_.pop_front();
                break;
            }
            if (deadline && now >= *deadline) return false;
            auto until = deadline;
            if (!timers_.empty() && (!until || timers_.begin()->first < *until))
                until = timers_.begin()->first;
            if (until) {
                wake_.wait_until(lock, *until);
            } else {
                wake_.wait(lock);
            }
        }
    }
    task();
    return true;
}

void RunLoop::run() {
    while (state_->runOne(std::nullopt)) {
    }
    std::lock_guard lock(state_->mutex_);
    state_->stopping_ = false;
}

void RunLoop::stop() {
    {
        std::lock_guard lock(state_->mutex_);
        state_->stopping_ = true;
    }
    state_->wake_.notify_all();
}

void RunLoop::runFor(std::chrono::milliseconds duration) {
    runUntil([] { return false; }, duration);
}

bool RunLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool held = done();
    while (!held && state_->runOne(deadline)) held = done();
    std::lock_guard lock(state_->mutex_);
    state_->stopping_ = false;
    return held;
}

void RunLoop::onStopSignal(std::function<void(int signal)> handler) {
    state_->stopSignals.reset();  // a second call replaces the first handler
    state_->stopSignals = std::make_unique<detail::StopSignalWatch>(
        [this, handler = std::move(handler)](int signal) { post([handler, signal] { handler(signal); }); });
}

}  // namespace pelm::platform
