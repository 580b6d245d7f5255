#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pelm/platform/ble/region_engine.hpp>

namespace pelm::platform {

/// Where BlueZ is found and how long it may take to answer.
struct BluezOptions {
    /// The bus BlueZ is on; the system bus when not given.
    std::optional<std::string> busAddress;
    std::chrono::milliseconds callTimeout{std::chrono::seconds(2)};
};

/// The advertising data a device sent, rebuilt from BlueZ's ManufacturerData property (bytes by company):
/// one manufacturer-specific structure per company, in company order.
std::vector<std::uint8_t> advertisingDataOf(
    const std::map<std::uint16_t, std::vector<std::uint8_t>>& byCompany);

/// Low-energy advertisements as BlueZ reports them over D-Bus. While an object of this class lives, the
/// adapter runs LE discovery (duplicates reported, so a beacon at rest keeps being heard) and every report of
/// a device whose manufacturer data holds an iBeacon frame is handed to the sink. Other devices (phones,
/// headsets) are not beacon hardware and are left out.
///
/// The sink is called on the D-Bus thread; it must hand the advertisement on, not use it there.
class BluezAdvertisements {
  public:
    using Sink = std::function<void(HeardAdvertisement)>;

    /// The object path of the first adapter BlueZ manages; nothing without a bus, BlueZ or an adapter.
    static std::optional<std::string> findAdapter(const BluezOptions& options);

    /// Starts discovery on `adapter`. Throws std::runtime_error with BlueZ's reason when it cannot.
    BluezAdvertisements(const BluezOptions& options, const std::string& adapter, Sink sink);
    /// Ends the D-Bus thread, then stops discovery.
    ~BluezAdvertisements();

    BluezAdvertisements(const BluezAdvertisements&) = delete;
    BluezAdvertisements& operator=(const BluezAdvertisements&) = delete;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace pelm::platform
