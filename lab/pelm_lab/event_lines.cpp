#include "pelm_lab/event_lines.hpp"

#include <chrono>

#include <pelm/model/json_date_transform.hpp>
#include <pelm/model/record_json.hpp>

namespace pelm::lab {
namespace {

JSON beaconJSON(const events::BeaconIdentity& beacon) {
    return {{"uuid", beacon.uuid}, {"major", beacon.major}, {"minor", beacon.minor}};
}

std::string displayName(Content::DisplayType type) {
    return std::string(rawValue(type));
}

std::string contentName(const Content& content) {
    return content.textRecord && content.textRecord->name ? *content.textRecord->name : "(untitled)";
}

// Each event's kind and fields; `line` already holds "v" and "t".
struct Fields {
    JSON& line;

    void operator()(const events::MainRegionEntered& e) const {
        line["kind"] = "main_region_entered";
        line["uuid"] = e.uuid;
        line["already_inside"] = e.alreadyInside;
    }
    void operator()(const events::MainRegionLeft& e) const {
        line["kind"] = "main_region_left";
        line["uuid"] = e.uuid;
    }
    void operator()(const events::BeaconsRanged& e) const {
        line["kind"] = "ranged";
        JSON beacons = JSON::array();
        for (const auto& ranged : e.beacons) {
            auto beacon = beaconJSON(ranged.beacon);
            beacon["rssi"] = ranged.rssi;
            beacon["accuracy"] = ranged.accuracy;
            beacon["proximity"] = events::proximityName(ranged.proximity);
            beacons.push_back(std::move(beacon));
        }
        line["beacons"] = std::move(beacons);
    }
    void operator()(const events::SubRegionEntered& e) const {
        line["kind"] = "sub_region_entered";
        line["beacon"] = beaconJSON(e.beacon);
        line["already_inside"] = e.alreadyInside;
    }
    void operator()(const events::SubRegionLeft& e) const {
        line["kind"] = "sub_region_left";
        line["beacon"] = beaconJSON(e.beacon);
    }
    void operator()(const events::ContentHandedOn& e) const {
        line["kind"] = "content";
        line["beacon"] = beaconJSON(e.beacon);
        line["display_type"] = displayName(e.displayType);
        line["id"] = e.content && e.content->id ? JSON(*e.content->id) : JSON();
        line["name"] = e.content && e.content->textRecord && e.content->textRecord->name
                           ? JSON(*e.content->textRecord->name)
                           : JSON();
    }
    void operator()(const events::ContentHeldBack& e) const {
        line["kind"] = "held_back";
        line["beacon"] = beaconJSON(e.beacon);
        line["display_type"] = displayName(e.displayType);
        line["until"] = dateText(e.until);
    }
    void operator()(const events::VisitUploaded& e) const {
        line["kind"] = "visit_uploaded";
        line["stored"] = e.stored;
        line["beacon"] = beaconJSON(e.beacon);
        line["session"] = toJSON(e.session);
        JSON lines = JSON::array();
        for (const auto& visited : e.lines) lines.push_back(toJSON(visited));
        line["lines"] = std::move(lines);
    }
    void operator()(const events::NearbyDevices& e) const {
        line["kind"] = "nearby";
        JSON devices = JSON::array();
        for (std::size_t i = 0; i < e.devices.size(); ++i) {
            const auto& device = e.devices[i];
            const auto untold = e.untoldOf(i);
            // What a device did not tell is null, never a reading of 0.
            const auto told = [](bool missing, auto value) { return missing ? JSON(nullptr) : JSON(value); };
            devices.push_back({{"id", device.identifier},
                               {"rssi", device.rssi},
                               {"battery", told(untold.batteryLevel, device.batteryLevel)},
                               {"firmware", told(untold.firmwareVersion, device.firmwareVersion)},
                               {"tx_power", told(untold.transmissionPower, device.transmissionPower)}});
        }
        line["devices"] = std::move(devices);
    }
    void operator()(const events::BluetoothChanged& e) const {
        line["kind"] = "bluetooth";
        line["status"] = std::string(to_string(e.status));
    }
    void operator()(const events::LocationChanged& e) const {
        line["kind"] = "location";
        line["status"] = std::string(to_string(e.status));
    }
    void operator()(const events::ReachabilityChanged& e) const {
        line["kind"] = "reachability";
        line["status"] = std::string(to_string(e.status));
    }
};

JSON heardJSON(const std::vector<HeardSignal>& signals) {
    JSON beacons = JSON::array();
    for (const auto& signal : signals) {
        beacons.push_back({{"uuid", signal.uuid},
                           {"major", signal.major},
                           {"minor", signal.minor},
                           {"device", signal.device},
                           {"rssi", signal.rssi},
                           {"advertisements", signal.advertisements}});
    }
    return beacons;
}

// What one event says, as the terminal shows it.
struct Words {
    std::string operator()(const events::MainRegionEntered& e) const { return "entered the store " + e.uuid; }
    std::string operator()(const events::MainRegionLeft& e) const { return "left the store " + e.uuid; }
    std::string operator()(const events::BeaconsRanged& e) const {
        std::string text = std::to_string(e.beacons.size()) + " ranged:";
        for (const auto& b : e.beacons)
            text += " " + beaconLabel(b.beacon) + " (" + std::to_string(b.rssi) + " dBm)";
        return text;
    }
    std::string operator()(const events::SubRegionEntered& e) const {
        return "entered " + beaconLabel(e.beacon);
    }
    std::string operator()(const events::SubRegionLeft& e) const { return "left " + beaconLabel(e.beacon); }
    std::string operator()(const events::ContentHandedOn& e) const {
        return (e.content ? contentName(*e.content) : "(untitled)") + " [" + displayName(e.displayType) +
               "] from " + beaconLabel(e.beacon);
    }
    std::string operator()(const events::ContentHeldBack& e) const {
        return displayName(e.displayType) + " content of " + beaconLabel(e.beacon) + " held back until " +
               dateDescription(e.until);
    }
    std::string operator()(const events::VisitUploaded& e) const {
        return "visit of " + std::to_string(e.lines.size()) + " beacon" + (e.lines.size() == 1 ? "" : "s") +
               (e.stored ? " stored" : " not stored");
    }
    std::string operator()(const events::NearbyDevices& e) const {
        std::string text = std::to_string(e.devices.size()) + " nearby:";
        for (std::size_t i = 0; i < e.devices.size(); ++i) {
            const auto& b = e.devices[i];
            const auto untold = e.untoldOf(i);
            text += " " + b.identifier + " (" + std::to_string(b.rssi) + " dBm, battery " +
                    (untold.batteryLevel ? "?" : std::to_string(b.batteryLevel) + "%") +
                    (b.firmwareVersion.empty() ? "" : ", fw " + b.firmwareVersion) + ")";
        }
        return text;
    }
    std::string operator()(const events::BluetoothChanged& e) const {
        return "Bluetooth " + std::string(to_string(e.status));
    }
    std::string operator()(const events::LocationChanged& e) const {
        return "location " + std::string(to_string(e.status));
    }
    std::string operator()(const events::ReachabilityChanged& e) const {
        return "server " + std::string(to_string(e.status));
    }
};

}  // namespace

std::string beaconLabel(const events::BeaconIdentity& beacon) {
    return beacon.major + "/" + beacon.minor;
}

std::string describe(const events::VisitEventData& event) {
    return std::visit(Words{}, event);
}

JSON eventJSON(const TimelineEvent& event) {
    const auto t = std::chrono::duration_cast<std::chrono::milliseconds>(event.when.time_since_epoch());
    JSON line{{"v", kEventLinesVersion}, {"t", t.count()}};
    switch (event.kind) {
        case TimelineEvent::Kind::Visit:
            if (event.visit) std::visit(Fields{line}, *event.visit);
            break;
        case TimelineEvent::Kind::Status:
            line["kind"] = "status";
            line["text"] = event.text;
            line["critical"] = event.critical;
            break;
        case TimelineEvent::Kind::Log:
            line["kind"] = "log";
            line["text"] = event.text;
            break;
        case TimelineEvent::Kind::Heard:
            line["kind"] = "heard";
            line["beacons"] = heardJSON(event.signals);
            break;
    }
    return line;
}

}  // namespace pelm::lab
