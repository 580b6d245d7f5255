#include "pelm_lab/visit_picture.hpp"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <string_view>
#include <variant>

#include <pelm/model/content.hpp>
#include <pelm/model/json_date_transform.hpp>

#include "pelm_cli/text_numbers.hpp"

namespace pelm::lab {
namespace {

double secondsOf(std::chrono::milliseconds at) {
    return static_cast<double>(at.count()) / 1000.0;
}

std::optional<int> number(std::string_view text) {
    const auto value = cli::wholeNumber(text, 0, 65535);
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

std::uint64_t hashOf(const BeaconKey& key) {
    return std::hash<std::string>{}(key.uuid) * 1'000'003u ^
           (static_cast<std::uint64_t>(key.major) << 16 | key.minor);
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
    PictureBuilder builder;
    for (const auto& event : events) builder.add(event);
    return builder.picture(length);
}

void SignalTrack::add(double at, double rssi) {
    const auto index = static_cast<long long>(std::floor(at / resolution_));
    // Times never run backwards in a run; should one, it joins the latest point.
    if (buckets_.empty() || buckets_.back().index < index) buckets_.push_back({index, 0, 0, 0});
    auto& bucket = buckets_.back();
    bucket.sumAt += at;
    bucket.sumRssi += rssi;
    ++bucket.seconds;

    const double from = at - 0.5, to = at + 0.5;
    if (!heard_.empty() && from - heard_.back().second <= bridge_) {
        heard_.back().second = std::max(heard_.back().second, to);
    } else {
        heard_.emplace_back(from, to);
    }
    coarsen();
}

// More than twice the points drawn, each `resolution_` apart, means a run longer than 2 x kSignalPoints
// resolutions, whose drawing thins to at least twice the resolution: halving the points loses nothing it
// draws. The same holds for the heard intervals and their bridge.
void SignalTrack::coarsen() {
    if (buckets_.size() > 2 * kSignalPoints) {
        resolution_ *= 2;
        std::vector<Bucket> merged;
        for (const auto& bucket : buckets_) {
            const long long index = bucket.index >> 1;
            if (merged.empty() || merged.back().index != index) merged.push_back({index, 0, 0, 0});
            merged.back().sumAt += bucket.sumAt;
            merged.back().sumRssi += bucket.sumRssi;
            merged.back().seconds += bucket.seconds;
        }
        buckets_ = std::move(merged);
    }
    if (heard_.size() > 2 * kSignalPoints) {
        bridge_ *= 2;
        heard_ = heard(bridge_ * kSignalPoints);
    }
}

std::vector<std::vector<SignalPoint>> SignalTrack::line(double seconds) const {
    const double bucket = std::max(1.0, seconds / kSignalPoints);
    std::map<long long, Bucket> thinned;
    for (const auto& each : buckets_) {
        auto& sum = thinned[static_cast<long long>(each.sumAt / each.seconds / bucket)];
        sum.sumAt += each.sumAt;
        sum.sumRssi += each.sumRssi;
        sum.seconds += each.seconds;
    }
    std::vector<std::vector<SignalPoint>> lines;
    const double gap = std::max(5.0, 2.5 * bucket);
    for (const auto& [index, sum] : thinned) {
        const SignalPoint point{sum.sumAt / sum.seconds, sum.sumRssi / sum.seconds};
        if (lines.empty() || point.at - lines.back().back().at > gap) lines.emplace_back();
        lines.back().push_back(point);
    }
    return lines;
}

std::vector<std::pair<double, double>> SignalTrack::heard(double seconds) const {
    const double bridge = std::max(bridge_, seconds / kSignalPoints);
    std::vector<std::pair<double, double>> intervals;
    for (const auto& [from, to] : heard_) {
        if (!intervals.empty() && from - intervals.back().second <= bridge) {
            intervals.back().second = std::max(intervals.back().second, to);
        } else {
            intervals.emplace_back(from, to);
        }
    }
    return intervals;
}

void PictureBuilder::add(const TimelineEvent& event) {
    const double at = secondsOf(event.at);
    latest_ = std::max(latest_, at);
    if (event.kind == TimelineEvent::Kind::Heard) {
        for (const auto& signal : event.signals) heard(signal, at);
    } else if (event.visit) {
        std::visit([&](const auto& visit) { this->visit(visit, at); }, *event.visit);
    }
}

void PictureBuilder::visit(const events::MainRegionEntered& entered, double at) {
    if (!picture_.visitStart) picture_.visitStart = at;
    if (picture_.appUuid) return;
    picture_.appUuid = entered.uuid;
    // From now on only the app's beacons get rows; those of others heard so far are counted.
    for (auto it = beacons_.begin(); it != beacons_.end();) {
        if (it->first.uuid == entered.uuid) {
            ++it;
        } else {
            others_.add(hashOf(it->first));
            it = beacons_.erase(it);
        }
    }
}

void PictureBuilder::visit(const events::MainRegionLeft&, double at) {
    picture_.visitEnd = at;
}

void PictureBuilder::visit(const events::SubRegionEntered& entered, double at) {
    const auto key = keyOf(entered.beacon);
    if (!key) return;
    // Found inside and entered, close together, are one entry.
    if (lastEntry_ && lastEntry_->first == *key && at - lastEntry_->second < 2.0) return;
    lastEntry_ = {*key, at};
    mark(*key, BeaconMark::Kind::Entry, at);
}

void PictureBuilder::visit(const events::SubRegionLeft& left, double at) {
    if (const auto key = keyOf(left.beacon)) mark(*key, BeaconMark::Kind::Exit, at);
}

void PictureBuilder::visit(const events::ContentHandedOn& content, double at) {
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

void PictureBuilder::visit(const events::ContentHeldBack& heldBack, double at) {
    ++picture_.heldBack;
    const auto key = keyOf(heldBack.beacon);
    if (!key) return;
    const bool exit = heldBack.displayType == Content::DisplayType::exit;
    mark(*key, BeaconMark::Kind::HeldBack, at,
         std::string(exit ? "exit" : "entry") + " held back until " + dateDescription(heldBack.until));
}

void PictureBuilder::visit(const events::VisitUploaded& upload, double) {
    picture_.upload = upload.stored ? VisitPicture::Upload::Succeeded : VisitPicture::Upload::Failed;
}

void PictureBuilder::visit(const events::NearbyDevices& nearby, double at) {
    for (std::size_t i = 0; i < nearby.devices.size(); ++i)
        discovered(nearby.devices[i], nearby.untoldOf(i), at);
}

// The beacon's row; none for another app's beacon or one past the rows drawn, which are counted instead.
PictureBuilder::Samples* PictureBuilder::row(const BeaconKey& key) {
    if (picture_.appUuid && key.uuid != *picture_.appUuid) {
        others_.add(hashOf(key));
        return nullptr;
    }
    if (const auto found = beacons_.find(key); found != beacons_.end()) return &found->second;
    if (beacons_.size() >= kMostBeaconRows) {
        notDrawn_.add(hashOf(key));
        return nullptr;
    }
    return &beacons_[key];
}

void PictureBuilder::mark(const BeaconKey& key, BeaconMark::Kind kind, double at, std::string text) {
    if (auto* samples = row(key)) samples->marks.push_back({kind, at, std::move(text)});
}

void PictureBuilder::discovered(const DiscoveredBeacon& device, const events::UntoldValues& untold,
                                double at) {
    auto found = devices_.find(device.identifier);
    if (found == devices_.end()) {
        if (devices_.size() >= kMostDeviceRows) {
            devicesNotShown_.add(std::hash<std::string>{}(device.identifier));
            return;
        }
        found = devices_.emplace(device.identifier, DeviceRow{}).first;
        auto& row = found->second;
        row.id = device.identifier;
        row.firstSeen = at;
        row.weakest = row.strongest = device.rssi;
    }
    auto& row = found->second;
    row.battery = untold.batteryLevel ? std::nullopt : std::optional(device.batteryLevel);
    row.firmware = untold.firmwareVersion ? std::nullopt : std::optional(device.firmwareVersion);
    row.transmissionPower = untold.transmissionPower ? std::nullopt : std::optional(device.transmissionPower);
    row.weakest = std::min(row.weakest, device.rssi);
    row.strongest = std::max(row.strongest, device.rssi);
    row.lastSeen = at;
}

void PictureBuilder::heard(const HeardSignal& signal, double at) {
    auto* samples = row({signal.uuid, signal.major, signal.minor});
    if (!samples) return;
    if (samples->devices.size() < kDevicesNamed) {
        samples->devices.insert(signal.device);
    } else if (!samples->devices.contains(signal.device)) {
        samples->moreDevices = true;
    }
    // The event closes the second it sums up; its middle is where the signal was.
    if (samples->pendingAt != at - 0.5) samples->flush();
    samples->pendingAt = at - 0.5;
    samples->pendingSum += signal.rssi;
    ++samples->pendingCount;
}

void PictureBuilder::Samples::flush() {
    if (pendingCount > 0) signal.add(pendingAt, pendingSum / pendingCount);
    pendingSum = 0;
    pendingCount = 0;
}

VisitPicture PictureBuilder::picture(std::chrono::milliseconds length) const {
    VisitPicture picture = picture_;
    picture.seconds = std::max({1.0, secondsOf(length), latest_});
    for (const auto& [key, kept] : beacons_) {
        auto samples = kept;
        samples.flush();
        picture.beacons.push_back({key, samples.devices, samples.moreDevices,
                                   samples.signal.heard(picture.seconds),
                                   samples.signal.line(picture.seconds), samples.marks});
    }
    picture.beaconsNotDrawn = notDrawn_.count();
    picture.otherBeacons = others_.count();
    for (const auto& [id, row] : devices_) picture.devices.push_back(row);
    picture.devicesNotShown = devicesNotShown_.count();
    return picture;
}

}  // namespace pelm::lab
