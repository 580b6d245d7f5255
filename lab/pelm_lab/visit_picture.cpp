#include "pelm_lab/visit_picture.hpp"

#include <algorithm>
#include <map>
#include <string_view>
#include <variant>

#include <pelm/model/content.hpp>
#include <pelm/model/json_date_transform.hpp>

#include "pelm_server/text_numbers.hpp"

namespace pelm::lab {
namespace {

double secondsOf(std::chrono::milliseconds at) {
    return static_cast<double>(at.count()) / 1000.0;
}

std::optional<int> number(std::string_view text) {
    const auto value = server::wholeNumber(text, 0, 65535);
    return value ? std::optional<int>(static_cast<int>(*value)) : std::nullopt;
}

// The beacon manager names beacons by decimal major and minor; a beacon a host made up with other texts has
// no row.
std::optional<BeaconKey> keyOf(const events::BeaconIdentity& beacon) {
    const auto major = number(beacon.major);
    const auto minor = number(beacon.minor);
    if (!major || !minor) return std::nullopt;
    return BeaconKey{beacon.uuid, *major, *minor};
}

// Collects the picture event by event.
class Builder {
  public:
    explicit Builder(double seconds) { picture_.seconds = seconds; }

    void add(const TimelineEvent& event) {
        const double at = secondsOf(event.at);
        if (event.kind == TimelineEvent::Kind::Heard) {
            for (const auto& signal : event.signals) heard(signal, at);
        } else if (event.visit) {
            std::visit([&](const auto& visit) { this->visit(visit, at); }, *event.visit);
        }
    }

    VisitPicture finish() &&;

  private:
    struct Samples {
        std::set<std::string> devices;
        // One mean a second (several devices of one identity are averaged).
        std::map<double, std::pair<double, int>> rssi;
        std::vector<BeaconMark> marks;
    };

    void visit(const events::MainRegionEntered& entered, double at);
    void visit(const events::MainRegionLeft& left, double at);
    void visit(const events::SubRegionEntered& entered, double at);
    void visit(const events::SubRegionLeft& left, double at);
    void visit(const events::ContentHandedOn& content, double at);
    void visit(const events::ContentHeldBack& heldBack, double at);
    void visit(const events::VisitUploaded& upload, double at);
    void visit(const events::NearbyDevices& nearby, double at);
    // Ranging, Bluetooth, location and reachability change nothing in the picture.
    template <class Other>
    void visit(const Other&, double) {}
    void mark(const BeaconKey& key, BeaconMark::Kind kind, double at, std::string text = {});
    void discovered(const DiscoveredBeacon& device, double at);
    void heard(const HeardSignal& signal, double at);

    VisitPicture picture_;
    std::map<BeaconKey, Samples> beacons_;
    std::map<std::string, DeviceRow> devices_;
    // The latest entry, which the platform may report twice (found inside, then entered).
    std::optional<std::pair<BeaconKey, double>> lastEntry_;
};

void Builder::visit(const events::MainRegionEntered& entered, double at) {
    if (!picture_.appUuid) picture_.appUuid = entered.uuid;
    if (!picture_.visitStart) picture_.visitStart = at;
}

void Builder::visit(const events::MainRegionLeft&, double at) {
    picture_.visitEnd = at;
}

void Builder::visit(const events::SubRegionEntered& entered, double at) {
    const auto key = keyOf(entered.beacon);
    if (!key) return;
    // Found inside and entered, close together, are one entry.
    if (lastEntry_ && lastEntry_->first == *key && at - lastEntry_->second < 2.0) return;
    lastEntry_ = {*key, at};
    mark(*key, BeaconMark::Kind::Entry, at);
}

void Builder::visit(const events::SubRegionLeft& left, double at) {
    if (const auto key = keyOf(left.beacon)) mark(*key, BeaconMark::Kind::Exit, at);
}

void Builder::visit(const events::ContentHandedOn& content, double at) {
    const bool exit = content.displayType == Content::DisplayType::exit;
    const auto* text = content.content ? content.content->textRecord.get() : nullptr;
    HandedContent handed{at, text && text->name ? *text->name : "(untitled)", exit ? "exit" : "entry",
                         keyOf(content.beacon)};
    if (handed.beacon) {
        mark(*handed.beacon, exit ? BeaconMark::Kind::ExitContent : BeaconMark::Kind::EntryContent, at,
             handed.name);
    }
    picture_.contents.push_back(std::move(handed));
}

void Builder::visit(const events::ContentHeldBack& heldBack, double at) {
    ++picture_.heldBack;
    const auto key = keyOf(heldBack.beacon);
    if (!key) return;
    const bool exit = heldBack.displayType == Content::DisplayType::exit;
    mark(*key, BeaconMark::Kind::HeldBack, at,
         std::string(exit ? "exit" : "entry") + " held back until " + dateDescription(heldBack.until));
}

void Builder::visit(const events::VisitUploaded& upload, double) {
    picture_.upload = upload.stored ? VisitPicture::Upload::Succeeded : VisitPicture::Upload::Failed;
}

void Builder::visit(const events::NearbyDevices& nearby, double at) {
    for (const auto& device : nearby.devices) discovered(device, at);
}

void Builder::mark(const BeaconKey& key, BeaconMark::Kind kind, double at, std::string text) {
    beacons_[key].marks.push_back({kind, at, std::move(text)});
}

void Builder::discovered(const DiscoveredBeacon& device, double at) {
    const auto [found, added] = devices_.try_emplace(device.identifier);
    auto& row = found->second;
    if (added) {
        row.id = device.identifier;
        row.firstSeen = at;
        row.weakest = row.strongest = device.rssi;
    }
    row.battery = device.batteryLevel;
    row.firmware = device.firmwareVersion;
    row.transmissionPower = device.transmissionPower;
    row.weakest = std::min(row.weakest, device.rssi);
    row.strongest = std::max(row.strongest, device.rssi);
    row.lastSeen = at;
}

void Builder::heard(const HeardSignal& signal, double at) {
    const BeaconKey key{signal.uuid, signal.major, signal.minor};
    auto& samples = beacons_[key];
    samples.devices.insert(signal.device);
    // The event closes the second it sums up; its middle is where the signal was.
    auto& [sum, count] = samples.rssi[at - 0.5];
    sum += signal.rssi;
    ++count;
}

// The signal thinned to at most kSignalPoints buckets over the run, each the mean of its seconds.
std::vector<std::vector<SignalPoint>> signalLine(const std::map<double, std::pair<double, int>>& rssi,
                                                 double seconds) {
    const double bucket = std::max(1.0, seconds / kSignalPoints);
    std::map<long long, std::pair<SignalPoint, int>> buckets;
    for (const auto& [at, sum] : rssi) {
        auto& [point, count] = buckets[static_cast<long long>(at / bucket)];
        point.at += at;
        point.rssi += sum.first / sum.second;
        ++count;
    }
    std::vector<std::vector<SignalPoint>> lines;
    const double gap = std::max(5.0, 2.5 * bucket);
    for (const auto& [index, sum] : buckets) {
        const SignalPoint point{sum.first.at / sum.second, sum.first.rssi / sum.second};
        if (lines.empty() || point.at - lines.back().back().at > gap) lines.emplace_back();
        lines.back().push_back(point);
    }
    return lines;
}

std::vector<std::pair<double, double>> heardIntervals(const std::map<double, std::pair<double, int>>& rssi,
                                                      double seconds) {
    const double bridge = std::max(2.0, seconds / kSignalPoints);
    std::vector<std::pair<double, double>> intervals;
    for (const auto& [at, sum] : rssi) {
        const double from = at - 0.5, to = at + 0.5;
        if (!intervals.empty() && from - intervals.back().second <= bridge) {
            intervals.back().second = to;
        } else {
            intervals.emplace_back(from, to);
        }
    }
    return intervals;
}

VisitPicture Builder::finish() && {
    for (auto& [key, samples] : beacons_) {
        if (picture_.appUuid && key.uuid != *picture_.appUuid) {
            ++picture_.otherBeacons;
            continue;
        }
        BeaconRow row{key, std::move(samples.devices), heardIntervals(samples.rssi, picture_.seconds),
                      signalLine(samples.rssi, picture_.seconds), std::move(samples.marks)};
        picture_.beacons.push_back(std::move(row));
    }
    for (auto& [id, row] : devices_) picture_.devices.push_back(std::move(row));
    return std::move(picture_);
}

}  // namespace

std::string BeaconKey::label() const {
    return std::to_string(major) + "/" + std::to_string(minor);
}

std::size_t VisitPicture::beaconsMet() const {
    return static_cast<std::size_t>(std::count_if(beacons.begin(), beacons.end(), [](const BeaconRow& row) {
        return std::any_of(row.marks.begin(), row.marks.end(),
                           [](const BeaconMark& mark) { return mark.kind == BeaconMark::Kind::Entry; });
    }));
}

const DeviceRow* VisitPicture::device(const std::string& id) const {
    const auto found =
        std::find_if(devices.begin(), devices.end(), [&](const DeviceRow& row) { return row.id == id; });
    return found == devices.end() ? nullptr : &*found;
}

VisitPicture pictureOf(const std::vector<TimelineEvent>& events, std::chrono::milliseconds length) {
    double seconds = secondsOf(length);
    for (const auto& event : events) seconds = std::max(seconds, secondsOf(event.at));
    Builder builder(std::max(1.0, seconds));
    for (const auto& event : events) builder.add(event);
    return std::move(builder).finish();
}

}  // namespace pelm::lab
