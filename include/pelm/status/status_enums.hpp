#pragma once

#include <string_view>

namespace pelm {

/// Whether the content server's host can be reached. `Unknown` is never reported.
/// \ingroup host_api
enum class ReachableStatus { Reachable, UnReachable, Unknown };

/// Whether the app may use location services.
/// \ingroup host_api
enum class LocationStatus { AlwaysAllowed, WhenInUseAllowed, NotAllowed, Unknown };

/// Whether Bluetooth is on.
/// \ingroup host_api
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

/// The enumerator's name, as written above.
constexpr std::string_view to_string(ReachableStatus status) {
    switch (status) {
        case ReachableStatus::Reachable:
            return "Reachable";
        case ReachableStatus::UnReachable:
            return "UnReachable";
        case ReachableStatus::Unknown:
            return "Unknown";
    }
    return "Unknown";
}

constexpr std::string_view to_string(LocationStatus status) {
    switch (status) {
        case LocationStatus::AlwaysAllowed:
            return "AlwaysAllowed";
        case LocationStatus::WhenInUseAllowed:
            return "WhenInUseAllowed";
        case LocationStatus::NotAllowed:
            return "NotAllowed";
        case LocationStatus::Unknown:
            return "Unknown";
    }
    return "Unknown";
}

constexpr std::string_view to_string(BluetoothStatus status) {
    switch (status) {
        case BluetoothStatus::On:
            return "On";
        case BluetoothStatus::Off:
            return "Off";
        case BluetoothStatus::Error:
            return "Error";
        case BluetoothStatus::Unknown:
            return "Unknown";
    }
    return "Unknown";
}

}  // namespace pelm
