#pragma once

#include <filesystem>
#include <string>

#include <pelm/platform/device_identity.hpp>

namespace pelm::platform {

/// The device identifier is a name-based UUID (version 5) of the machine id and the vendor name: stable
/// across runs and reinstalls, the same for every app of one vendor, and not the machine id itself.
class MachineIdentity final : public DeviceIdentity {
  public:
    MachineIdentity(std::string vendorName, std::string appVersion, std::string appBuildVersion,
                    std::filesystem::path machineIdFile = "/etc/machine-id");

    std::optional<std::string> vendorIdentifier() const override;
    std::string appVersion() const override { return appVersion_; }
    std::string appBuildVersion() const override { return appBuildVersion_; }

  private:
    std::string vendorName_;
    std::string appVersion_;
    std::string appBuildVersion_;
    std::filesystem::path machineIdFile_;
};

/// The version 5 UUID of `name` in the namespace `namespaceUuid` (16 bytes), upper case canonical text.
std::string nameBasedUuid(const unsigned char (&namespaceUuid)[16], const std::string& name);

}  // namespace pelm::platform
