#pragma once

#include <pelm/analytics/solvan.hpp>
#include <pelm/model/raw_values.hpp>

namespace pelm {

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

}  // namespace pelm
