#pragma once

#include <pelm/export.hpp>

#include <cstdint>
#include <string>
#include <string_view>

namespace pelm {

/// The analytics vocabulary of the retail deployment: beacons carry the store number as major and the
/// merchandise group (an area of the store) as minor.
enum class SolvanAnalyticsCategory {
    beaconStoreMerchandiseGroup,
    beaconStoreDwellTime,
    beaconViews,
    beaconMerchandiseGroupDwellTime,
    beaconQueryProcess,
};

enum class SolvanAnalyticsAction { discoverd, delivered };

enum class SolvanAnalyticsLabel { enter, exit };

/// Names for the numbers beacons carry. Pure: no state, nothing logged.
struct Solvan {
    /// The store's name, or the number's decimal text.
    PELM_EXPORT static std::string storeName(std::int64_t number);
    /// The merchandise group's name, or the number's decimal text.
    PELM_EXPORT static std::string merchandiseGroupName(std::int64_t number);
    /// uuid + "+" + major + "+" + minor, unchanged.
    PELM_EXPORT static std::string eventLabelByBeacon(std::string_view uuid, std::string_view major,
                                                      std::string_view minor);
};

}  // namespace pelm
