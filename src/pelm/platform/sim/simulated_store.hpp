#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <pelm/model/json_binding.hpp>
#include <pelm/platform/ble/region_engine.hpp>

namespace pelm::platform {

/// A bad scenario: `what()` names the field and why ("beacons[2].x: must be a number").
class ScenarioError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A store to walk through: its beacons, the shopper's path and how the radio behaves.
struct Scenario {
    struct Beacon {
        std::string name;
        ProximityUUID uuid;
        std::uint16_t major = 0, minor = 0;
        double x = 0, y = 0;
        int measuredPower = -59;
        std::chrono::milliseconds interval{100};
        std::uint64_t battery = 100;
        std::string firmware;  // empty: the device tells none
        std::string uniqueID;  // empty: the device tells none
        std::int64_t transmissionPower = 0;
    };
    struct WayPoint {
        double x = 0, y = 0;
        std::chrono::milliseconds dwell{0};
    };
    std::string name;
    std::vector<Beacon> beacons;
    std::vector<WayPoint> path;
    double walkingSpeed = 1.0;        // metres per second
    double pathLossExponent = 2.0;    // free space is 2; shop floors are a little above
    double noiseDb = 2.0;             // standard deviation of the received signal
    int detectionThresholdDbm = -90;  // weaker advertisements are not heard

    /// Reads a scenario; throws ScenarioError naming the first bad field.
    static Scenario fromJSON(const JSON& json);
    /// How long the walk takes, dwell times included.
    std::chrono::milliseconds duration() const;
    /// Where the shopper is `at` after the start.
    std::pair<double, double> positionAt(std::chrono::milliseconds at) const;
};

/// Plays a scenario as a stream of advertisements into a region engine, in virtual time. The same seed gives
/// the same stream.
class SimulatedStore {
  public:
    SimulatedStore(Scenario scenario, std::uint64_t seed);

    const Scenario& scenario() const { return scenario_; }
    /// Hands the engine every advertisement sent up to `elapsed` after the start that the radio hears.
    void advertiseUntil(std::chrono::milliseconds elapsed, RegionEngine& engine);
    /// The same, handing each advertisement the radio hears to `hear`.
    void advertiseUntil(std::chrono::milliseconds elapsed,
                        const std::function<void(const HeardAdvertisement&)>& hear);
    /// The signal strength of beacon `index` at the shopper's position at `at`; none when not heard.
    std::optional<int> received(std::size_t index, std::chrono::milliseconds at);
    std::uint64_t advertisementsSent() const { return sent_; }
    /// Told of every advertisement the radio hears: beacon index, time since the start, signal strength.
    std::function<void(std::size_t, std::chrono::milliseconds, int)> onHeard;

    /// The advertising data an iBeacon of this identity sends (with a Flags structure).
    static std::vector<std::uint8_t> advertisingData(const Scenario::Beacon& beacon);

  private:
    double gaussian();

    Scenario scenario_;
    std::mt19937_64 random_;
    std::vector<std::chrono::milliseconds> nextAdvertisement_;
    std::vector<std::vector<std::uint8_t>> data_;
    std::uint64_t sent_ = 0;
};

}  // namespace pelm::platform
