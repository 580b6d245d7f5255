#pragma once

#include <pelm/export.hpp>

#include <optional>
#include <string>

namespace pelm::platform {

/// Who this device and host app are.
class PELM_EXPORT DeviceIdentity {
  public:
    virtual ~DeviceIdentity() = default;
    /// Identifier of this device, stable for all apps of one vendor; none when it cannot be had yet.
    /// When present it is the 36-character canonical UUID text.
    virtual std::optional<std::string> vendorIdentifier() const = 0;
    /// The host app's version text (what a bundle calls its short version string).
    virtual std::string appVersion() const = 0;
    /// The host app's build text.
    virtual std::string appBuildVersion() const = 0;
};

}  // namespace pelm::platform
