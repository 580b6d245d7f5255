#include "pelm_lab/replay.hpp"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>
#include <string_view>
#include <thread>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/ble/ibeacon_advertisement.hpp>
#include <pelm/platform/ble/recording_reader.hpp>

#include "pelm_lab/timeline_output.hpp"
#include "pelm_server/demo_seed.hpp"

namespace pelm::lab {
namespace {

using namespace std::chrono_literals;

struct Identity {
    std::string uuid;
    std::uint16_t major = 0, minor = 0;
    auto operator<=>(const Identity&) const = default;
};

// How many different texts went by, in 16 bytes a text at most: their 64-bit hashes, sorted and made
// unique whenever the list has doubled. Two addresses of a million share a hash once in 10^7 recordings.
class DistinctCount {
  public:
    void add(std::string_view text) {
        hashes_.push_back(std::hash<std::string_view>{}(text));
        if (hashes_.size() >= 2 * std::max<std::size_t>(unique_, 4096)) compact();
    }
    std::uint64_t count() {
        compact();
        return unique_;
    }

  private:
    void compact() {
        std::sort(hashes_.begin(), hashes_.end());
        hashes_.erase(std::unique(hashes_.begin(), hashes_.end()), hashes_.end());
        unique_ = hashes_.size();
    }
    std::vector<std::size_t> hashes_;
    std::size_t unique_ = 0;
};

// The middle of the recording's times, from an evenly thinned sample of at most 64 Ki times.
class MedianTime {
  public:
    void add(Date at) {
        if (seen_++ % stride_ != 0) return;
        sample_.push_back(at);
        if (sample_.size() < kMaxSample) return;
        for (std::size_t i = 0; i < sample_.size() / 2; ++i) sample_[i] = sample_[2 * i];
        sample_.resize(sample_.size() / 2);
        stride_ *= 2;
    }
    Date median() {
        if (sample_.empty()) return {};
        const auto middle = sample_.begin() + static_cast<std::ptrdiff_t>(sample_.size() / 2);
        std::nth_element(sample_.begin(), middle, sample_.end());
        return *middle;
    }

  private:
    static constexpr std::size_t kMaxSample = 1 << 16;
    std::vector<Date> sample_;
    std::uint64_t seen_ = 0, stride_ = 1;
};

// Times no recording of a walk can have: before 2000 (a clock not yet set), or more than a day after most of
// the file. Counted with the first one's place, for one warning line each.
struct OddTimes {
    std::uint64_t count = 0;
    std::string first;
    Date firstAt{};
    void add(Date at, const platform::RecordingReader& reader) {
        if (count++ == 0) {
            first = reader.where();
            firstAt = at;
        }
    }
};

constexpr Date kYear2000{std::chrono::seconds(946684800)};

// One pass: counts, and the identities heard (few, whatever the file's size).
RecordingSummary summarise(const ReplayOptions& options, std::set<Identity>& identities, OddTimes& early) {
    RecordingSummary summary;
    auto reader = platform::RecordingReader::open(options.recording);
    summary.format = reader->format();
    DistinctCount devices;
    MedianTime middle;
    std::map<std::string, std::uint64_t> uuids;
    while (auto heard = reader->next()) {
        if (options.scanner && heard->receiver != *options.scanner) continue;
        if (summary.advertisements++ == 0) summary.first = heard->at;
        summary.last = heard->at;
        middle.add(heard->at);
        if (heard->at < kYear2000) early.add(heard->at, *reader);
        devices.add(heard->address);
        if (const auto frame = platform::parseIBeacon(heard->data)) {
            ++summary.beaconAdvertisements;
            const auto uuid = frame->proximityUUID.uuidString();
            ++uuids[uuid];
            identities.insert({uuid, frame->major, frame->minor});
        }
    }
    summary.devices = devices.count();
    summary.median = middle.median();
    summary.warning = reader->warning();
    std::uint64_t most = 0;
    for (const auto& [uuid, count] : uuids) {
        if (count > most) {
            most = count;
            summary.mostHeardUuid = uuid;
        }
    }
    return summary;
}

std::string dateText(Date at) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(at);
    const auto stamp = static_cast<std::time_t>(seconds.time_since_epoch().count());
    std::tm utc{};
    ::gmtime_r(&stamp, &utc);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc);
    return text;
}

std::string oddTimesWarning(const OddTimes& odd, const std::string& what) {
    return std::to_string(odd.count) + (odd.count == 1 ? " advertisement is" : " advertisements are") +
           " dated " + what + ", the first at " + odd.first + " (" + dateText(odd.firstAt) +
           "); the clock passes over such gaps in no time";
}

// The demo app, watching `uuid`, with an entry and an exit content for every beacon of it that was heard.
JSON seedFor(const std::string& uuid, const std::set<Identity>& identities) {
    auto seed = *parseJSONText(server::demoSeedText());
    seed["apps"][0]["app_config"]["default_beacon_uuid"] = uuid;
    seed["contents"] = JSON::array();
    std::int64_t id = 1000;
    for (const auto& beacon : identities) {
        if (beacon.uuid != uuid) continue;
        const auto name = std::to_string(beacon.major) + "/" + std::to_string(beacon.minor);
        for (const char* type : {"entry", "exit"}) {
            const bool entry = std::string(type) == "entry";
            seed["contents"].push_back(
                {{"app_token", "demo-token"},
                 {"display_type", type},
                 {"beacon", {{"uuid", uuid}, {"major", beacon.major}, {"minor", beacon.minor}}},
                 {"content",
                  {{"id", id++},
                   {"display_type", type},
                   {"cool_down_time", 600},
                   {"text_record", {{"name", (entry ? "Near " : "Left ") + name}}}}}});
        }
    }
    return seed;
}

// Sleeps in short slices, so a stop asked for during a long wait is taken at once; false when it was.
bool sleepUnlessStopped(std::chrono::duration<double, std::milli> wait,
                        const std::function<bool()>& stopRequested) {
    // A day at most per gap in real time: the clock cannot hold the wait of a gap of millennia.
    const auto capped = std::min(wait, std::chrono::duration<double, std::milli>(std::chrono::hours(24)));
    const auto until =
        std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::nanoseconds>(capped);
    for (auto now = std::chrono::steady_clock::now(); now < until; now = std::chrono::steady_clock::now()) {
        if (stopRequested && stopRequested()) return false;
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(until - now, 100ms));
    }
    return true;
}

std::string withThousands(std::uint64_t count) {
    const auto digits = std::to_string(count);
    std::string text;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) text.push_back(',');
        text.push_back(digits[i]);
    }
    return text;
}

}  // namespace

std::string ScannerSummary::line() const {
    return (name.empty() ? std::string("(unnamed)") : name) + ": " + heard();
}

std::string ScannerSummary::heard() const {
    std::string text = withThousands(advertisements) + " advertisement" + (advertisements == 1 ? "" : "s") +
                       " over " +
                       clockText(std::chrono::duration_cast<std::chrono::milliseconds>(last - first)) + ", ";
    if (beacons.empty()) return text + "no iBeacon";
    text += beacons.size() == 1 ? "beacon" : "beacons";
    for (const auto& [major, minor] : beacons)
        text += " " + std::to_string(major) + "/" + std::to_string(minor);
    return text;
}

std::string ScannerList::names() const {
    std::string text;
    for (const auto& scanner : scanners) {
        if (!scanner.name.empty()) text += (text.empty() ? "" : ", ") + scanner.name;
    }
    if (otherAdvertisements > 0) {
        text.append(" and more (")
            .append(withThousands(otherAdvertisements))
            .append(" advertisements from others)");
    }
    return text;
}

ScannerList listScanners(const std::filesystem::path& recording) {
    std::map<std::string, ScannerSummary> byName;
    std::uint64_t others = 0;
    auto reader = platform::RecordingReader::open(recording);
    while (auto heard = reader->next()) {
        auto found = byName.find(heard->receiver);
        if (found == byName.end()) {
            // A file that names a new receiver on every line is not a set of rooms: the rest are counted.
            if (byName.size() >= kMostScanners) {
                ++others;
                continue;
            }
            ScannerSummary added;
            added.name = heard->receiver;
            added.first = added.last = heard->at;
            found = byName.emplace(heard->receiver, std::move(added)).first;
        }
        auto& scanner = found->second;
        ++scanner.advertisements;
        scanner.first = std::min(scanner.first, heard->at);
        scanner.last = std::max(scanner.last, heard->at);
        if (const auto frame = platform::parseIBeacon(heard->data))
            scanner.beacons.insert({frame->major, frame->minor});
    }
    ScannerList list;
    for (auto& [name, scanner] : byName) list.scanners.push_back(std::move(scanner));
    list.otherAdvertisements = others;
    return list;
}

namespace {

// A --scanner that heard nothing: the names there are, so that a typo is plain.
std::string noSuchScanner(const ReplayOptions& options) {
    const auto names = listScanners(options.recording).names();
    return "no scanner named " + *options.scanner + " in it; " +
           (names.empty() ? "its advertisements name no scanner" : "its scanners: " + names);
}

}  // namespace

std::string RecordingSummary::line() const {
    return std::to_string(advertisements) + " advertisements (" + std::to_string(beaconAdvertisements) +
           " iBeacon) from " + std::to_string(devices) + " devices over " +
           clockText(std::chrono::duration_cast<std::chrono::milliseconds>(last - first)) + " of recording";
}

ReplayResult runReplay(const ReplayOptions& options,
                       const std::function<void(const TimelineEvent&)>& onEvent) {
    ReplayResult result;
    std::set<Identity> identities;
    OddTimes early, late;
    result.summary = summarise(options, identities, early);
    if (early.count > 0) result.timeWarnings.push_back(oddTimesWarning(early, "before 2000"));
    if (result.summary.advertisements == 0) {
        result.failure = options.scanner ? noSuchScanner(options) : "no advertisement in it";
        return result;
    }
    const auto uuid = options.uuid ? options.uuid : result.summary.mostHeardUuid;
    if (!uuid) {
        result.failure = "no iBeacon in it; give the app's UUID with --uuid";
        return result;
    }
    result.uuid = *uuid;
    result.start = std::chrono::floor<std::chrono::seconds>(result.summary.first) - 1s;
    ServerChoice server{options.host, options.token, options.caFile, seedFor(*uuid, identities)};
    VisitHarness harness(server, result.start, onEvent);
    result.failure = harness.failure();
    if (result.failure.empty()) {
        auto reader = platform::RecordingReader::open(options.recording);
        const auto lateFrom = result.summary.median + std::chrono::hours(24);
        while (auto heard = reader->next()) {
            if (options.scanner && heard->receiver != *options.scanner) continue;
            if (heard->at > lateFrom) late.add(heard->at, *reader);
            const auto wait =
                std::chrono::duration_cast<std::chrono::milliseconds>(heard->at - harness.loop().now());
            if (wait.count() > 0) {
                if (options.speed > 0 && !sleepUnlessStopped(wait / options.speed, options.stopRequested))
                    break;
                harness.loop().advance(wait);
            }
            if (options.stopRequested && options.stopRequested()) break;
            harness.hear(*heard);
            harness.loop().runUntilIdle();
        }
        result.interrupted = options.stopRequested && options.stopRequested();
        // The end of a recording is radio silence: regions are left, the visit goes up.
        if (!result.interrupted) harness.loop().advance(45s);
        if (late.count > 0)
            result.timeWarnings.push_back(
                oddTimesWarning(late, "more than a day after the recording's median time (" +
                                          dateText(result.summary.median) + ")"));
    }
    harness.finish();
    result.timeline = harness.events();
    result.storedVisits = harness.storedVisits();
    return result;
}

}  // namespace pelm::lab
