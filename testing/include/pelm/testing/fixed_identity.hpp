#pragma once

#include <pelm/platform/device_identity.hpp>

namespace pelm::testing {

/// An identity given up front.
/// \ingroup testing_kit
class FixedIdentity final : public platform::DeviceIdentity {
  public:
    /// The identifier (none, as a device may have none) and the app's versions this identity gives.
    FixedIdentity(std::optional<std::string> vendorIdentifier, std::string appVersion,
                  std::string appBuildVersion)
        : vendorIdentifier_(std::move(vendorIdentifier)),
          appVersion_(std::move(appVersion)),
          appBuildVersion_(std::move(appBuildVersion)) {}
    std::optional<std::string> vendorIdentifier() const override { return vendorIdentifier_; }
    std::string appVersion() const override { return appVersion_; }
    std::string appBuildVersion() const override { return appBuildVersion_; }

  private:
    std::optional<std::string> vendorIdentifier_;
    std::string appVersion_;
    std::string appBuildVersion_;
};

}  // namespace pelm::testing
