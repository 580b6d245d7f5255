#pragma once

#include <pelm/export.hpp>

#include <cstdint>
#include <string>
#include <string_view>

#include <pelm/model/raw_values.hpp>

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

/// The texts of SolvanAnalyticsCategory as the analytics bridge sends them.
template <>
struct RawValues<SolvanAnalyticsCategory> {
    using C = SolvanAnalyticsCategory;
    static constexpr std::array table{
        std::pair{C::beaconStoreMerchandiseGroup, std::string_view{"Beacon Markt/Warengruppen"}},
        std::pair{C::beaconStoreDwellTime, std::string_view{"Beacon Markt/Verweildauer"}},
        std::pair{C::beaconViews, std::string_view{"Beacon Views"}},
        std::pair{C::beaconMerchandiseGroupDwellTime, std::string_view{"Beacon Warengruppe/Verweildauer"}},
        std::pair{C::beaconQueryProcess, std::string_view{"Beacon Abfrageprozess"}},
    };
};

/// The texts of SolvanAnalyticsAction as the analytics bridge sends them.
template <>
struct RawValues<SolvanAnalyticsAction> {
    static constexpr std::array table{
        std::pair{SolvanAnalyticsAction::discoverd, std::string_view{"Discovered"}},
        std::pair{SolvanAnalyticsAction::delivered, std::string_view{"Delivered"}}};
};

/// The texts of SolvanAnalyticsLabel as the analytics bridge sends them.
template <>
struct RawValues<SolvanAnalyticsLabel> {
    static constexpr std::array table{std::pair{SolvanAnalyticsLabel::enter, std::string_view{"Enter"}},
                                      std::pair{SolvanAnalyticsLabel::exit, std::string_view{"Exit"}}};
};

/// Names for the numbers beacons carry. Pure: no state, nothing logged.
struct PELM_EXPORT Solvan {
    /// The store's name, or the number's decimal text.
    static std::string storeName(std::int64_t number);
    /// The merchandise group's name, or the number's decimal text.
    static std::string merchandiseGroupName(std::int64_t number);
    /// uuid + "+" + major + "+" + minor, unchanged.
    static std::string eventLabelByBeacon(std::string_view uuid, std::string_view major,
                                          std::string_view minor);
};

}  // namespace pelm
