#include <pelm/testing/scripted_device_status.hpp>

#include <pelm/platform/observer_list.hpp>

namespace pelm::testing {

struct ScriptedObservers::State {
    platform::ObserverList<int> list;
};

ScriptedObservers::ScriptedObservers() : state_(std::make_shared<State>()) {}

std::shared_ptr<void> ScriptedObservers::add(std::function<void(int)> observer) {
    return state_->list.add(std::move(observer));
}

void ScriptedObservers::notify(int value) const {
    state_->list.notify(value);
}

}  // namespace pelm::testing
