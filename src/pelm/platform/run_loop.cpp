#include <pelm/platform/run_loop.hpp>

namespace pelm::platform {

void RunLoop::post(Task task) {
    {
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(task));
    }
    wake_.notify_one();
}

MainQueue::TimerId RunLoop::postAfter(std::chrono::milliseconds delay, Task task) {
    TimerId id;
    {
        std::lock_guard lock(mutex_);
        id = nextTimer_++;
        timers_.emplace(std::chrono::steady_clock::now() + delay, std::pair{id, std::move(task)});
    }
    wake_.notify_one();
    return id;
}

void RunLoop::cancel(TimerId timer) {
    std::lock_guard lock(mutex_);
    for (auto it = timers_.begin(); it != timers_.end(); ++it) {
        if (it->second.first == timer) {
            timers_.erase(it);
            return;
        }
    }
}

bool RunLoop::runOne(std::optional<SteadyTime> deadline) {
    Task task;
    {
        std::unique_lock lock(mutex_);
        for (;;) {
            if (stopping_) return false;
            const auto now = std::chrono::steady_clock::now();
            if (!timers_.empty() && timers_.begin()->first <= now) {
                // Due timers join the ready queue in deadline order, behind what was posted before.
                while (!timers_.empty() && timers_.begin()->first <= now) {
                    ready_.push_back(std::move(timers_.begin()->second.second));
                    timers_.erase(timers_.begin());
                }
            }
            if (!ready_.empty()) {
                task = std::move(ready_.front());
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
    while (runOne(std::nullopt)) {
    }
    std::lock_guard lock(mutex_);
    stopping_ = false;
}

void RunLoop::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
}

void RunLoop::runFor(std::chrono::milliseconds duration) {
    runUntil([] { return false; }, duration);
}

bool RunLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool held = done();
    while (!held && runOne(deadline)) held = done();
    std::lock_guard lock(mutex_);
    stopping_ = false;
    return held;
}

}  // namespace pelm::platform
