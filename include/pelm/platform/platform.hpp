#pragma once

#include <pelm/export.hpp>

#include <memory>

#include <pelm/platform/device_identity.hpp>
#include <pelm/platform/device_status_sources.hpp>
#include <pelm/platform/http_transport.hpp>
#include <pelm/platform/key_value_store.hpp>
#include <pelm/platform/log_sink.hpp>
#include <pelm/platform/main_queue.hpp>
#include <pelm/platform/region_monitor.hpp>

namespace pelm::platform {

/// The services the library asks of the machine it runs on. A host installs one before the first use of
/// the library; without one, the Linux platform is used. Every member but `beaconVendor` and the three
/// device-status sources must be set; without a source, its status is not reported.
struct Platform {
    /// The library's thread and its clock.
    std::shared_ptr<MainQueue> mainQueue;
    /// Where settings live.
    std::shared_ptr<KeyValueStore> store;
    /// The device's identifier and the app's versions.
    std::shared_ptr<DeviceIdentity> identity;
    /// Where log lines go.
    std::shared_ptr<LogSink> log;
    /// How requests reach the server.
    std::shared_ptr<HttpTransport> http;
    /// Beacon monitoring, ranging and discovery; none where the machine has no beacon source.
    std::shared_ptr<BeaconVendor> beaconVendor;
    /// Device status: reachability of a host, location authorisation, Bluetooth.
    std::shared_ptr<ReachabilityService> reachability;
    /// The location authorisation.
    std::shared_ptr<LocationAuthorization> location;
    /// The Bluetooth adapter's state.
    std::shared_ptr<BluetoothState> bluetooth;
};

/// Makes `platform` the one the library uses from now on. Objects built earlier keep the services they
/// took at construction; process-wide conveniences (the shared settings, the host snapshot) start afresh.
/// \ingroup host_api
PELM_EXPORT void install(std::shared_ptr<const Platform> platform);

/// The installed platform, or the Linux default (made on first use) when none was installed.
PELM_EXPORT std::shared_ptr<const Platform> current();

}  // namespace pelm::platform
