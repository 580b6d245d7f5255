#include <pelm/events/visit_event_hub.hpp>

#include <atomic>

#include <pelm/platform/observer_list.hpp>
#include <pelm/platform/platform.hpp>

namespace pelm::events {
namespace {

struct Hub {
    platform::ObserverList<const VisitEvent&> listeners;
    std::atomic<int> count{0};
};

Hub& hub() {
    static Hub instance;
    return instance;
}

}  // namespace

VisitEventListener::~VisitEventListener() = default;

std::shared_ptr<void> subscribe(const std::shared_ptr<VisitEventListener>& listener) {
    if (!listener) return nullptr;
    auto& events = hub();
    auto registration = events.listeners.add([weak = std::weak_ptr(listener)](const VisitEvent& event) {
        if (const auto alive = weak.lock()) alive->onVisitEvent(event);
    });
    ++events.count;
    return std::shared_ptr<void>(nullptr, [registration = std::move(registration)](void*) mutable {
        registration.reset();
        --hub().count;
    });
}

bool anyListener() {
    return hub().count.load(std::memory_order_relaxed) > 0;
}

void publish(VisitEventData data) {
    const auto queue = platform::current()->mainQueue;
    hub().listeners.notify(VisitEvent{queue ? queue->now() : systemNow(), std::move(data)});
}

BeaconIdentity identityOf(const Beacon& beacon) {
    return {beacon.uuid.value_or(""), beacon.major.value_or(""), beacon.minor.value_or("")};
}

BeaconIdentity identityOf(const platform::BeaconRegion& region) {
    return {region.proximityUUID.uuidString(), region.major ? std::to_string(*region.major) : "",
            region.minor ? std::to_string(*region.minor) : ""};
}

Proximity proximityOf(double accuracyMetres) {
    if (accuracyMetres < 0) return Proximity::Unknown;
    if (accuracyMetres < 0.5) return Proximity::Immediate;
    return accuracyMetres < 3.0 ? Proximity::Near : Proximity::Far;
}

const char* proximityName(Proximity proximity) {
    switch (proximity) {
        case Proximity::Immediate:
            return "immediate";
        case Proximity::Near:
            return "near";
        case Proximity::Far:
            return "far";
        case Proximity::Unknown:
            break;
    }
    return "unknown";
}

}  // namespace pelm::events
