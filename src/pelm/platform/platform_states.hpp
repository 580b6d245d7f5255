#pragma once

#include <string_view>

namespace pelm::platform {

/// Names for the location authorisation values the seam carries as plain numbers
/// (`AuthorizationStatus`, `LocationAuthorization::authorizationStatus()`):
/// `static_cast<LocationAuthorizationState>(status)`.
enum class LocationAuthorizationState : int {
    NotDetermined = 0,
    Restricted = 1,
    Denied = 2,
    AuthorizedAlways = 3,
    AuthorizedWhenInUse = 4,
};

/// Names for the Bluetooth controller states the seam carries as plain numbers (`BluetoothState::state()`).
enum class BluetoothPowerState : int {
    Unknown = 0,
    Resetting = 1,
    Unsupported = 2,
    Unauthorized = 3,
    PoweredOff = 4,
    PoweredOn = 5,
};

/// The value's name; "Unrecognised" for a number outside the list.
constexpr std::string_view to_string(LocationAuthorizationState state) {
    switch (state) {
        case LocationAuthorizationState::NotDetermined:
            return "NotDetermined";
        case LocationAuthorizationState::Restricted:
            return "Restricted";
        case LocationAuthorizationState::Denied:
            return "Denied";
        case LocationAuthorizationState::AuthorizedAlways:
            return "AuthorizedAlways";
        case LocationAuthorizationState::AuthorizedWhenInUse:
            return "AuthorizedWhenInUse";
    }
    return "Unrecognised";
}

constexpr std::string_view to_string(BluetoothPowerState state) {
    switch (state) {
        case BluetoothPowerState::Unknown:
            return "Unknown";
        case BluetoothPowerState::Resetting:
            return "Resetting";
        case BluetoothPowerState::Unsupported:
            return "Unsupported";
        case BluetoothPowerState::Unauthorized:
            return "Unauthorized";
        case BluetoothPowerState::PoweredOff:
            return "PoweredOff";
        case BluetoothPowerState::PoweredOn:
            return "PoweredOn";
    }
    return "Unrecognised";
}

}  // namespace pelm::platform
