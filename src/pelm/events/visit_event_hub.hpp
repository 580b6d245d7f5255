#pragma once

#include <utility>

#include <pelm/events/visit_event.hpp>
#include <pelm/model/beacon.hpp>
#include <pelm/platform/beacon_region.hpp>

namespace pelm::events {

/// Whether anyone listens; events are only made when someone does.
bool anyListener();
/// Sends `data` to every listener, stamped with the main queue's clock. On the main queue only.
void publish(VisitEventData data);

/// Publishes what `make` returns, calling it only when someone listens.
template <class Make>
void emit(Make&& make) {
    if (anyListener()) publish(std::forward<Make>(make)());
}

/// A beacon's identity texts; a missing text is empty.
BeaconIdentity identityOf(const Beacon& beacon);
/// A one-beacon region's identity; the major and minor of a wider region are empty.
BeaconIdentity identityOf(const platform::BeaconRegion& region);
Proximity proximityOf(double accuracyMetres);

}  // namespace pelm::events
