#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <pelm/analytics/solvan_texts.hpp>
#include <pelm/beacons/beacon_manager_engine.hpp>
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

/// Makes beacon managers as a host does and keeps their analytics events as "category | action | label"
/// (the bridge still gets them, and still does nothing).
class AnalyticsRecorder {
  public:
    /// A manager whose analytics this recorder keeps; with `early`, its delegate from the start, so that it
    /// hears the set-up lines too.
    std::shared_ptr<PelmBeaconManager> make(std::shared_ptr<PelmBeaconManagerDelegate> early = nullptr) {
        return detail::BeaconManagerEngine::make(
            {std::move(early), [events = events_](SolvanAnalyticsCategory category, const std::string& action,
                                                  const std::optional<std::string>& label) {
                 events->push_back(std::string(rawValue(category)) + " | " + action + " | " +
                                   label.value_or("(none)"));
             }});
    }
    std::vector<std::string> take() { return std::exchange(*events_, {}); }

  private:
    std::shared_ptr<std::vector<std::string>> events_ = std::make_shared<std::vector<std::string>>();
};

/// What the manager keeps to itself: its main region, analytics fields and session manager.
inline detail::BeaconManagerEngine& engineOf(PelmBeaconManager& manager) {
    return detail::BeaconManagerEngine::of(manager);
}

}  // namespace pelm::testing
