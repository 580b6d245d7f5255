#include <pelm/testing/virtual_loop.hpp>

namespace pelm::testing {

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

VirtualLoop::TimerId VirtualLoop::postAfter(std::chrono::milliseconds delay, Task task) {
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

VirtualLoop::Ticket VirtualLoop::beginExternalWork() {
    std::lock_guard lock(mutex_);
    const auto ticket = nextTicket_++;
    external_.emplace(ticket, std::nullopt);
    return ticket;
}

void VirtualLoop::finishExternalWork(Ticket ticket, Task result) {
    {
        std::lock_guard lock(mutex_);
        const auto found = external_.find(ticket);
        if (found == external_.end()) return;
        found->second = std::move(result);
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
        } else if (!external_.empty()) {
            // Outside results are taken only when nothing else is ready, one at a time in the order their
            // work began: how fast the network answers never changes the order of events.
            arrived_.wait(lock, [&] { return !ready_.empty() || external_.begin()->second.has_value(); });
            if (ready_.empty()) {
                ready_.push_back(std::move(*external_.begin()->second));
                external_.erase(external_.begin());
            }
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

}  // namespace pelm::testing
