#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <pelm/model/json_binding.hpp>

namespace pelm {

/// The configuration the server keeps for one host app.
class AppConfig : public Mappable<AppConfig> {
  public:
    std::optional<std::int64_t> slcDistance;
    std::optional<std::string> minSDK;
    std::optional<std::int64_t> maxSessionTime;
    /// The proximity UUID of the app's beacons, as the server sent it.
    std::optional<std::string> defaultBeaconUUID;
    /// The key the beacon vendor's SDK is set up with.
    std::optional<std::string> kontaktIoAPIKey;

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("slc_distance", self.slcDistance);
        map("min_sdk", self.minSDK);
        map("max_session_time", self.maxSessionTime);
        map("default_beacon_uuid", self.defaultBeaconUUID);
        map("kontakt_io_api_key", self.kontaktIoAPIKey);
    }
};

}  // namespace pelm
