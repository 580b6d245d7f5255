#pragma once

#include <pelm/export.hpp>

#include <pelm/status/status_enums.hpp>

namespace pelm {

/// What the host app hears from the device status manager, on the main queue.
/// \ingroup host_api
class PELM_EXPORT PelmDeviceStatusManagerDelegate {
  public:
    virtual ~PelmDeviceStatusManagerDelegate() = default;
    /// The server's host became reachable or unreachable.
    virtual void didChangeReachableStatus(ReachableStatus status) = 0;
    /// The location authorisation changed.
    virtual void didChangeLocationStatus(LocationStatus status) = 0;
    /// Bluetooth's state changed.
    virtual void didChangeBluetoothStatus(BluetoothStatus status) = 0;
};

}  // namespace pelm
