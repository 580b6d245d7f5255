#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <pelm/analytics/solvan_texts.hpp>
#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/model/content.hpp>

namespace pelm::testing {

/// What the host app hears, in order: "content <id>", "log <text>" (with " (critical)"), "devices <list>".
class RecordingBeaconDelegate : public PelmBeaconManagerDelegate {
  public:
    void didFindContent(std::shared_ptr<Content> content) override {
        events.push_back("content " +
                         (content && content->id ? std::to_string(*content->id) : std::string("?")));
    }
    void didReceiveLog(const std::string& text, bool critical) override {
        events.push_back("log " + text + (critical ? " (critical)" : ""));
    }
    void didDiscoverBeacons(const std::vector<DiscoveredBeacon>& beacons) override {
        std::string text = "devices";
        for (const auto& b : beacons) {
            text += " " + b.identifier + "/" + std::to_string(b.transmissionPower) + "/" + b.firmwareVersion +
                    "/" + std::to_string(b.batteryLevel) + "/" + std::to_string(b.rssi);
        }
        events.push_back(text);
    }
    std::vector<std::string> take() { return std::exchange(events, {}); }
    std::vector<std::string> events;
};

/// A beacon manager whose analytics events are kept as "category | action | label"; the bridge still gets
/// them and still does nothing. With a delegate given up front it also hears the set-up lines.
class RecordingBeaconManager : public PelmBeaconManager {
  public:
    std::vector<std::string> analytics;
    std::vector<std::string> takeAnalytics() { return std::exchange(analytics, {}); }

  protected:
    friend class PelmBeaconManager;
    explicit RecordingBeaconManager(std::shared_ptr<PelmBeaconManagerDelegate> early = nullptr) {
        delegate = std::move(early);
    }
    void trackEvent(SolvanAnalyticsCategory category, const std::string& action,
                    const std::optional<std::string>& label) override {
        analytics.push_back(std::string(rawValue(category)) + " | " + action + " | " +
                            label.value_or("(none)"));
        PelmBeaconManager::trackEvent(category, action, label);
    }
};

}  // namespace pelm::testing
