#pragma once

#include <optional>
#include <string>

#include <pelm/analytics/solvan.hpp>

namespace pelm {

/// The analytics bridge. It is inert: it accepts identifiers and events and keeps, sends, logs and stores
/// none of them, so analytics never changes what the library does, when, or what crosses the network.
struct GoogleAnalyticsManager {
    static void setupGoogleAnalytics(const std::string& /*trackingID*/) {}
    static void trackEvent(SolvanAnalyticsCategory /*category*/, const std::string& /*action*/,
                           const std::optional<std::string>& /*label*/) {}
};

}  // namespace pelm
