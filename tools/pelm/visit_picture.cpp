#include "visit_picture.hpp"

#include <algorithm>
#include <map>
#include <string_view>

#include "pelm_server/text_numbers.hpp"

namespace pelm::cli {
namespace {

double secondsOf(std::chrono::milliseconds at) {
    return static_cast<double>(at.count()) / 1000.0;
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

std::optional<int> number(std::string_view text) {
    const auto value = server::wholeNumber(text, 0, 65535);
    return value ? std::optional<int>(static_cast<int>(*value)) : std::nullopt;
}

// "Entering SUB Region: UUID - 1 - 11"
std::optional<BeaconKey> subRegionOf(std::string_view text, std::string_view prefix) {
    if (!startsWith(text, prefix)) return std::nullopt;
    text.remove_prefix(prefix.size());
    const auto first = text.find(" - ");
    const auto second = first == std::string_view::npos ? first : text.find(" - ", first + 3);
    if (second == std::string_view::npos) return std::nullopt;
    const auto major = number(text.substr(first + 3, second - first - 3));
    const auto minor = number(text.substr(second + 3));
    if (!major || !minor) return std::nullopt;
    return BeaconKey{std::string(text.substr(0, first)), *major, *minor};
}

// "Session Log: major: 1 minor: 11 uuid: UUID": the visit's log took the beacon in, which is an entry.
std::optional<BeaconKey> sessionEntryOf(std::string_view text) {
    constexpr std::string_view prefix = "Session Log: major: ";
    if (!startsWith(text, prefix)) return std::nullopt;
    text.remove_prefix(prefix.size());
    const auto minorAt = text.find(" minor: ");
    const auto uuidAt = minorAt == std::string_view::npos ? minorAt : text.find(" uuid: ", minorAt);
    if (uuidAt == std::string_view::npos) return std::nullopt;
    const auto major = number(text.substr(0, minorAt));
    const auto minor = number(text.substr(minorAt + 8, uuidAt - minorAt - 8));
    if (!major || !minor) return std::nullopt;
    return BeaconKey{std::string(text.substr(uuidAt + 7)), *major, *minor};
}

// Collects the picture event by event.
class Builder {
  public:
    explicit Builder(double seconds) { picture_.seconds = seconds; }

    void add(const TimelineEvent& event) {
        const double at = secondsOf(event.at);
        switch (event.kind) {
            case TimelineEvent::Kind::Status:
                status(event.text, at);
                break;
            case TimelineEvent::Kind::Content:
                content(event, at);
                break;
            case TimelineEvent::Kind::Devices:
                for (const auto& device : event.devices) discovered(device, at);
                break;
            case TimelineEvent::Kind::Heard:
                for (const auto& signal : event.signals) heard(signal, at);
                break;
            case TimelineEvent::Kind::Log:
                break;
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

    void status(const std::string& text, double at);
    void mark(const BeaconKey& key, BeaconMark::Kind kind, double at, std::string text = {});
    void content(const TimelineEvent& event, double at);
    void discovered(const DiscoveredBeacon& device, double at);
    void heard(const HeardSignal& signal, double at);

    VisitPicture picture_;
    std::map<BeaconKey, Samples> beacons_;
    std::map<std::string, DeviceRow> devices_;
    // The latest entry and exit the host app was told of, for the content and hold-backs that follow them.
    std::optional<std::pair<BeaconKey, double>> lastEntry_, lastExit_;
    std::optional<std::pair<std::string, double>> heldBack_;
};

void Builder::status(const std::string& text, double at) {
    constexpr std::string_view monitoring = "Starting core monitoring for uuid: ";
    if (startsWith(text, monitoring) && !picture_.appUuid) picture_.appUuid = text.substr(monitoring.size());
    if (startsWith(text, "Entering MAIN Region: ") && !picture_.visitStart) picture_.visitStart = at;
    if (startsWith(text, "Exiting MAIN Region: ")) picture_.visitEnd = at;
    if (text == "Session upload successful finished") picture_.upload = VisitPicture::Upload::Succeeded;
    if (text == "Failed to upload session") picture_.upload = VisitPicture::Upload::Failed;
    // Told before the beacon is taken in again: it belongs to the entry that comes next.
    constexpr std::string_view hot = "Beacon is hot until: ";
    if (startsWith(text, hot)) heldBack_ = {"held back until " + text.substr(hot.size()), at};
    auto entry = subRegionOf(text, "Entering SUB Region: ");
    if (!entry) entry = sessionEntryOf(text);
    if (entry) mark(*entry, BeaconMark::Kind::Entry, at);
    if (const auto exit = subRegionOf(text, "Exiting SUB Region: ")) mark(*exit, BeaconMark::Kind::Exit, at);
}

void Builder::mark(const BeaconKey& key, BeaconMark::Kind kind, double at, std::string text) {
    auto& marks = beacons_[key].marks;
    if (kind == BeaconMark::Kind::Entry) {
        // Entering the region and the visit's log taking the beacon in are one entry.
        if (lastEntry_ && lastEntry_->first == key && at - lastEntry_->second < 2.0) return;
        lastEntry_ = {key, at};
        if (heldBack_ && at - heldBack_->second < 2.0) {
            marks.push_back({BeaconMark::Kind::HeldBack, at, heldBack_->first});
            ++picture_.heldBack;
        }
        heldBack_.reset();
    }
    if (kind == BeaconMark::Kind::Exit) lastExit_ = {key, at};
    marks.push_back({kind, at, std::move(text)});
}

void Builder::content(const TimelineEvent& event, double at) {
    HandedContent handed{at, event.contentName.value_or("(untitled)"), event.displayType.value_or(""), {}};
    const bool exit = handed.displayType == "exit";
    if (const auto& cause = exit ? lastExit_ : lastEntry_) {
        handed.beacon = cause->first;
        mark(cause->first, exit ? BeaconMark::Kind::ExitContent : BeaconMark::Kind::EntryContent, at,
             handed.name);
    }
    picture_.contents.push_back(std::move(handed));
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

}  // namespace pelm::cli
