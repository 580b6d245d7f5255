#include <pelm/platform/sim/virtual_loop.hpp>

namespace pelm::platform {

VirtualLoop::VirtualLoop(Date start) : now_(start) {}

Date VirtualLoop::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

void VirtualLoop::post(Task task) {
    {
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(task));
    }
    arrived_.notify_all();
}

MainQueue::TimerId VirtualLoop::postAfter(std::chrono::milliseconds delay, Task task) {
    std::lock_guard lock(mutex_);
    const auto id = nextTimer_++;
    timers_.emplace(now_ + delay, std::pair{id, std::move(task)});
    return id;
}

void VirtualLoop::cancel(TimerId timer) {
    std::lock_guard lock(mutex_);
    for (auto it = timers_.begin(); it != timers_.end(); ++it) {
        if (it->second.first == timer) {
            timers_.erase(it);
            return;
        }
    }
}

void VirtualLoop::beginExternalWork() {
    std::lock_guard lock(mutex_);
    ++external_;
}

void VirtualLoop::endExternalWork() {
    {
        std::lock_guard lock(mutex_);
        --external_;
    }
    arrived_.notify_all();
}

std::size_t VirtualLoop::pendingTimers() const {
    std::lock_guard lock(mutex_);
    return timers_.size();
}

// Runs ready tasks (unlocked while each runs) until none is ready and no outside work is outstanding.
bool VirtualLoop::runReady(std::unique_lock<std::mutex>& lock) {
    bool ran = false;
    for (;;) {
        if (!ready_.empty()) {
            auto task = std::move(ready_.front());
            ready_.pop_front();
            lock.unlock();
            task();
            lock.lock();
            ran = true;
        } else if (external_ > 0) {
            arrived_.wait(lock, [&] { return !ready_.empty() || external_ == 0; });
        } else {
            return ran;
        }
    }
}

void VirtualLoop::runUntilIdle() {
    std::unique_lock lock(mutex_);
    runReady(lock);
}

void VirtualLoop::advance(std::chrono::milliseconds by) {
    std::unique_lock lock(mutex_);
    const auto target = now_ + by;
    runReady(lock);
    while (!timers_.empty() && timers_.begin()->first <= target) {
        now_ = std::max(now_, timers_.begin()->first);
        ready_.push_back(std::move(timers_.begin()->second.second));
        timers_.erase(timers_.begin());
        runReady(lock);
    }
    now_ = std::max(now_, target);
}

bool VirtualLoop::advanceToNextTimer() {
    std::unique_lock lock(mutex_);
    runReady(lock);
    if (timers_.empty()) return false;
    now_ = std::max(now_, timers_.begin()->first);
    ready_.push_back(std::move(timers_.begin()->second.second));
    timers_.erase(timers_.begin());
    runReady(lock);
    return true;
}

}  // namespace pelm::platform
