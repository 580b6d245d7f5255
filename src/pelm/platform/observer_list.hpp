#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace pelm::platform {

/// Observers that stay registered while their handle is kept. Safe to use from any thread.
template <class... Args>
class ObserverList {
  public:
    /// Adds `observer`; it is called until the returned handle is let go.
    std::shared_ptr<void> add(std::function<void(Args...)> observer) {
        std::lock_guard lock(state_->mutex);
        const auto id = state_->next++;
        state_->observers.emplace(id, std::move(observer));
        std::weak_ptr<State> state = state_;
        return std::shared_ptr<void>(nullptr, [state, id](void*) {
            if (auto alive = state.lock()) {
                std::lock_guard lock(alive->mutex);
                alive->observers.erase(id);
            }
        });
    }
    /// Calls every observer with `args`, outside the list's lock.
    void notify(Args... args) const {
        std::vector<std::function<void(Args...)>> observers;
        {
            std::lock_guard lock(state_->mutex);
            for (const auto& [id, observer] : state_->observers) observers.push_back(observer);
        }
        for (const auto& observer : observers) observer(args...);
    }

  private:
    struct State {
        std::mutex mutex;
        std::uint64_t next = 0;
        std::map<std::uint64_t, std::function<void(Args...)>> observers;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace pelm::platform
