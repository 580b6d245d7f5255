#pragma once

namespace pelm {

/// Whether the content server's host can be reached. `Unknown` is never reported.
enum class ReachableStatus { Reachable, UnReachable, Unknown };

/// Whether the app may use location services.
enum class LocationStatus { AlwaysAllowed, WhenInUseAllowed, NotAllowed, Unknown };

/// Whether Bluetooth is on.
enum class BluetoothStatus { On, Off, Error, Unknown };

/// From the platform's authorisation status: 3 always, 4 when in use, 0 unknown, anything else not allowed.
constexpr LocationStatus locationStatusFrom(int platformStatus) {
    switch (platformStatus) {
        case 3:
            return LocationStatus::AlwaysAllowed;
        case 4:
            return LocationStatus::WhenInUseAllowed;
        case 0:
            return LocationStatus::Unknown;
        default:
            return LocationStatus::NotAllowed;
    }
}

/// From the platform's Bluetooth state: 5 on, 4 off, 0 unknown, anything else an error.
constexpr BluetoothStatus bluetoothStatusFrom(int platformState) {
    switch (platformState) {
        case 5:
            return BluetoothStatus::On;
        case 4:
            return BluetoothStatus::Off;
        case 0:
            return BluetoothStatus::Unknown;
        default:
            return BluetoothStatus::Error;
    }
}

}  // namespace pelm
