#include <pelm/platform/sim/simulated_store.hpp>

#include <cmath>

#include <pelm/model/known_keys.hpp>

namespace pelm::platform {
namespace {

using std::chrono::milliseconds;

// A misspelt key would otherwise be read as absent, and its default used without a word.
void onlyKnownKeys(const JSON& object, std::initializer_list<const char*> known, const std::string& where) {
    if (const auto problem = unknownKeyProblem(object, known)) throw ScenarioError(where + *problem);
}

const JSON& member(const JSON& object, const std::string& key, const std::string& where) {
    const auto found = object.find(key);
    if (found == object.end()) throw ScenarioError(where + key + ": missing");
    return *found;
}

double number(const JSON& object, const std::string& key, const std::string& where,
              std::optional<double> fallback = {}) {
    const auto found = object.find(key);
    if (found == object.end() && fallback) return *fallback;
    const auto& value = member(object, key, where);
    if (!value.is_number()) throw ScenarioError(where + key + ": must be a number");
    return value.get<double>();
}

// A position in metres; a store is large, but not a continent.
double coordinate(const JSON& object, const std::string& key, const std::string& where) {
    const double value = number(object, key, where);
    if (!(value >= -10000 && value <= 10000))
        throw ScenarioError(where + key + ": must be between -10000 and 10000");
    return value;
}

long long whole(const JSON& object, const std::string& key, const std::string& where, long long low,
                long long high, std::optional<long long> fallback = {}) {
    const auto found = object.find(key);
    if (found == object.end() && fallback) return *fallback;
    const auto& value = member(object, key, where);
    if (!value.is_number_integer()) throw ScenarioError(where + key + ": must be a whole number");
    const bool huge =
        value.is_number_unsigned() && value.get<unsigned long long>() > static_cast<unsigned long long>(high);
    const auto n = huge ? high + 1 : value.get<long long>();
    if (n < low || n > high) {
        throw ScenarioError(where + key + ": must be between " + std::to_string(low) + " and " +
                            std::to_string(high));
    }
    return n;
}

std::string text(const JSON& object, const std::string& key, const std::string& where,
                 std::optional<std::string> fallback = {}) {
    const auto found = object.find(key);
    if (found == object.end() && fallback) return *fallback;
    const auto& value = member(object, key, where);
    if (!value.is_string()) throw ScenarioError(where + key + ": must be a string");
    return value.get<std::string>();
}

const JSON& list(const JSON& object, const std::string& key, const std::string& where) {
    const auto& value = member(object, key, where);
    if (!value.is_array() || value.empty()) throw ScenarioError(where + key + ": must be a non-empty array");
    return value;
}

Scenario::Beacon beaconFrom(const JSON& entry, const std::string& where, const std::string& defaultUuid) {
    if (!entry.is_object()) throw ScenarioError(where.substr(0, where.size() - 1) + ": must be an object");
    onlyKnownKeys(entry,
                  {"name", "uuid", "major", "minor", "x", "y", "measured_power", "interval_ms", "battery",
                   "firmware", "unique_id", "tx_power"},
                  where);
    Scenario::Beacon beacon;
    beacon.name = text(entry, "name", where, "");
    const auto uuidText = text(entry, "uuid", where, defaultUuid);
    const auto uuid = ProximityUUID::parse(uuidText);
    if (!uuid) throw ScenarioError(where + "uuid: \"" + uuidText + "\" is not a UUID");
    beacon.uuid = *uuid;
    beacon.major = static_cast<std::uint16_t>(whole(entry, "major", where, 0, 65535));
    beacon.minor = static_cast<std::uint16_t>(whole(entry, "minor", where, 0, 65535));
    beacon.x = coordinate(entry, "x", where);
    beacon.y = coordinate(entry, "y", where);
    beacon.measuredPower = static_cast<int>(whole(entry, "measured_power", where, -128, 127, -59));
    beacon.interval = milliseconds(whole(entry, "interval_ms", where, 20, 10000, 100));
    beacon.battery = static_cast<std::uint64_t>(whole(entry, "battery", where, 0, 100, 100));
    beacon.firmware = text(entry, "firmware", where, "");
    beacon.uniqueID = text(entry, "unique_id", where, "");
    beacon.transmissionPower = whole(entry, "tx_power", where, -40, 20, 0);
    return beacon;
}

}  // namespace

Scenario Scenario::fromJSON(const JSON& json) {
    if (!json.is_object()) throw ScenarioError("the scenario must be a JSON object");
    onlyKnownKeys(json, {"name", "uuid", "beacons", "path", "radio"}, "");
    Scenario scenario;
    scenario.name = text(json, "name", "", "store");
    const auto defaultUuid = text(json, "uuid", "", "");
    const auto& beacons = list(json, "beacons", "");
    for (std::size_t i = 0; i < beacons.size(); ++i) {
        scenario.beacons.push_back(
            beaconFrom(beacons[i], "beacons[" + std::to_string(i) + "].", defaultUuid));
    }
    const auto& walk = member(json, "path", "");
    if (!walk.is_object()) throw ScenarioError("path: must be an object");
    onlyKnownKeys(walk, {"speed", "points"}, "path.");
    scenario.walkingSpeed = number(walk, "speed", "path.", 1.0);
    if (!(scenario.walkingSpeed >= 0.01 && scenario.walkingSpeed < 20))
        throw ScenarioError("path.speed: must be at least 0.01 and below 20");
    const auto& points = list(walk, "points", "path.");
    for (std::size_t i = 0; i < points.size(); ++i) {
        const auto where = "path.points[" + std::to_string(i) + "].";
        if (!points[i].is_object())
            throw ScenarioError(where.substr(0, where.size() - 1) + ": must be an object");
        onlyKnownKeys(points[i], {"x", "y", "dwell"}, where);
        const double dwell = number(points[i], "dwell", where, 0.0);
        if (dwell < 0 || dwell > 86400)
            throw ScenarioError(where + "dwell: must be between 0 and 86400 seconds");
        scenario.path.push_back({coordinate(points[i], "x", where), coordinate(points[i], "y", where),
                                 milliseconds(static_cast<long long>(dwell * 1000))});
    }
    if (scenario.beacons.size() > 10000) throw ScenarioError("beacons: at most 10000");
    if (scenario.duration() > std::chrono::hours(24))
        throw ScenarioError("path: the walk must take at most 24 hours");
    const auto radio = json.value("radio", JSON::object());
    if (!radio.is_object()) throw ScenarioError("radio: must be an object");
    onlyKnownKeys(radio, {"path_loss_exponent", "noise_db", "threshold_dbm"}, "radio.");
    scenario.pathLossExponent = number(radio, "path_loss_exponent", "radio.", 2.0);
    scenario.noiseDb = number(radio, "noise_db", "radio.", 2.0);
    scenario.detectionThresholdDbm = static_cast<int>(whole(radio, "threshold_dbm", "radio.", -130, 0, -90));
    if (scenario.pathLossExponent < 1 || scenario.pathLossExponent > 6) {
        throw ScenarioError("radio.path_loss_exponent: must be between 1 and 6");
    }
    if (scenario.noiseDb < 0 || scenario.noiseDb > 30)
        throw ScenarioError("radio.noise_db: must be between 0 and 30");
    return scenario;
}

std::chrono::milliseconds Scenario::duration() const {
    milliseconds total{0};
    for (std::size_t i = 0; i < path.size(); ++i) {
        total += path[i].dwell;
        if (i + 1 < path.size()) {
            const double metres = std::hypot(path[i + 1].x - path[i].x, path[i + 1].y - path[i].y);
            total += milliseconds(static_cast<long long>(metres / walkingSpeed * 1000));
        }
    }
    return total;
}

std::pair<double, double> Scenario::positionAt(milliseconds at) const {
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (at <= path[i].dwell) return {path[i].x, path[i].y};
        at -= path[i].dwell;
        if (i + 1 == path.size()) break;
        const double metres = std::hypot(path[i + 1].x - path[i].x, path[i + 1].y - path[i].y);
        const auto leg = milliseconds(static_cast<long long>(metres / walkingSpeed * 1000));
        if (at <= leg) {
            const double share =
                leg.count() == 0 ? 1.0 : static_cast<double>(at.count()) / static_cast<double>(leg.count());
            return {path[i].x + (path[i + 1].x - path[i].x) * share,
                    path[i].y + (path[i + 1].y - path[i].y) * share};
        }
        at -= leg;
    }
    return {path.back().x, path.back().y};
}

SimulatedStore::SimulatedStore(Scenario scenario, std::uint64_t seed)
    : scenario_(std::move(scenario)), random_(seed) {
    for (const auto& beacon : scenario_.beacons) {
        // Beacons are not in step with each other: each starts at its own moment within its interval.
        nextAdvertisement_.push_back(
            milliseconds(static_cast<long long>(random_() % beacon.interval.count())));
        data_.push_back(advertisingData(beacon));
    }
}

std::vector<std::uint8_t> SimulatedStore::advertisingData(const Scenario::Beacon& beacon) {
    std::vector<std::uint8_t> data;
    data.reserve(30);
    for (const std::uint8_t byte : {0x02, 0x01, 0x06, 0x1A, 0xFF, 0x4C, 0x00, 0x02, 0x15})
        data.push_back(byte);
    for (const auto byte : beacon.uuid.bytes) data.push_back(byte);
    data.push_back(static_cast<std::uint8_t>(beacon.major >> 8));
    data.push_back(static_cast<std::uint8_t>(beacon.major & 0xFF));
    data.push_back(static_cast<std::uint8_t>(beacon.minor >> 8));
    data.push_back(static_cast<std::uint8_t>(beacon.minor & 0xFF));
    data.push_back(static_cast<std::uint8_t>(beacon.measuredPower));
    return data;
}

// Box-Muller on the engine's raw output: the same on every standard library, unlike normal_distribution.
double SimulatedStore::gaussian() {
    constexpr double scale = 1.0 / 18446744073709551616.0;
    const double u1 = (static_cast<double>(random_()) + 1.0) * scale;
    const double u2 = static_cast<double>(random_()) * scale;
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * M_PI * u2);
}

std::optional<int> SimulatedStore::received(std::size_t index, milliseconds at) {
    const auto& beacon = scenario_.beacons[index];
    const auto [x, y] = scenario_.positionAt(at);
    const double metres = std::max(0.1, std::hypot(beacon.x - x, beacon.y - y));
    const double rssi = beacon.measuredPower - 10.0 * scenario_.pathLossExponent * std::log10(metres) +
                        scenario_.noiseDb * gaussian();
    const int rounded = static_cast<int>(std::lround(rssi));
    if (rounded < scenario_.detectionThresholdDbm) return std::nullopt;
    return rounded;
}

void SimulatedStore::advertiseUntil(milliseconds elapsed, RegionEngine& engine) {
    advertiseUntil(elapsed, [&engine](const HeardAdvertisement& heard) { engine.hear(heard); });
}

void SimulatedStore::advertiseUntil(milliseconds elapsed,
                                    const std::function<void(const HeardAdvertisement&)>& hear) {
    for (std::size_t i = 0; i < scenario_.beacons.size(); ++i) {
        const auto& beacon = scenario_.beacons[i];
        while (nextAdvertisement_[i] <= elapsed) {
            ++sent_;
            if (const auto rssi = received(i, nextAdvertisement_[i])) {
                HeardAdvertisement heard;
                heard.address = "sim-" + std::to_string(i);
                heard.rssi = *rssi;
                heard.data = data_[i];
                if (!beacon.uniqueID.empty()) heard.uniqueID = beacon.uniqueID;
                if (!beacon.firmware.empty()) heard.firmwareVersion = beacon.firmware;
                heard.batteryLevel = beacon.battery;
                heard.transmissionPower = beacon.transmissionPower;
                if (onHeard) onHeard(i, nextAdvertisement_[i], *rssi);
                hear(heard);
            }
            nextAdvertisement_[i] += beacon.interval;
        }
    }
}

}  // namespace pelm::platform
