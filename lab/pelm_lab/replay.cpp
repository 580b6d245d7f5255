#include "pelm_lab/replay.hpp"

#include <algorithm>
#include <array>
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

// How many different texts went by, in 16 bytes a text at most: their 64-bit hashes in a table of open
// addressing kept at most half full. Two addresses of a million share a hash once in 10^7 recordings. Each
// hash goes into the table one text later, after its slot was fetched into the cache while the reader
// worked: among many devices the table is too large for the cache, and the wait would be most of the work.
class DistinctCount {
  public:
    void add(std::string_view text) {
        insertPending();
        // 0 marks a free slot, so every hash is made odd.
        pending_ = std::hash<std::string_view>{}(text) | 1;
        __builtin_prefetch(&slots_[pending_ & (slots_.size() - 1)]);
    }
    std::uint64_t count() const { return count_ + (pending_ != 0 && !contains(pending_)); }

  private:
    void insertPending() {
        if (pending_ == 0) return;
        if (2 * (count_ + 1) > slots_.size()) grow();
        insert(pending_);
        pending_ = 0;
    }
    bool contains(std::uint64_t hash) const {
        const auto mask = slots_.size() - 1;
        for (auto at = hash & mask;; at = (at + 1) & mask) {
            if (slots_[at] == hash) return true;
            if (slots_[at] == 0) return false;
        }
    }
    void insert(std::uint64_t hash) {
        const auto mask = slots_.size() - 1;
        for (auto at = hash & mask;; at = (at + 1) & mask) {
            if (slots_[at] == hash) return;
            if (slots_[at] == 0) {
                slots_[at] = hash;
                ++count_;
                return;
            }
        }
    }
    void grow() {
        auto old = std::move(slots_);
        slots_.assign(old.size() * 2, 0);
        count_ = 0;
        for (const auto hash : old) {
            if (hash != 0) insert(hash);
        }
    }
    std::vector<std::uint64_t> slots_ = std::vector<std::uint64_t>(1024);
    std::uint64_t count_ = 0;
    std::uint64_t pending_ = 0;
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
    Date median() const {
        if (sample_.empty()) return {};
        auto sorted = sample_;
        const auto middle = sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2);
        std::nth_element(sorted.begin(), middle, sorted.end());
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
    std::uint64_t firstPlace = 0;
    Date firstAt{};
    void add(Date at, std::uint64_t place) {
        if (count++ == 0) {
            firstPlace = place;
            firstAt = at;
        }
    }
};

constexpr Date kYear2000{std::chrono::seconds(946684800)};

// The app's UUID is the one heard most often among the first advertisements: this many are read ahead.
constexpr std::size_t kLookAhead = 1 << 16;

using UUIDBytes = std::array<std::uint8_t, 16>;

// UUIDs (as text or as bytes, whose orders agree) with how often each was heard, most heard first; equals
// keep the order of their text.
template <class UUID>
std::vector<std::pair<UUID, std::uint64_t>> mostHeardFirst(const std::map<UUID, std::uint64_t>& heard) {
    std::vector<std::pair<UUID, std::uint64_t>> byCount(heard.begin(), heard.end());
    std::stable_sort(byCount.begin(), byCount.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    return byCount;
}

// A beacon under the app's UUID, by major and minor.
using BeaconNumbers = std::pair<std::uint16_t, std::uint16_t>;

// One advertisement read, with its iBeacon frame and where it stood in the file.
struct ReadAdvertisement {
    platform::HeardAdvertisement heard;
    std::optional<platform::IBeaconFrame> frame;
    std::uint64_t place = 0;
};

// The receivers named besides the one asked for, for the answer to a --scanner that heard nothing.
class OtherReceivers {
  public:
    void add(const std::string& receiver) {
        if (receiver == last_) {
            if (!lastKept_) ++others_;
            return;
        }
        last_ = receiver;
        lastKept_ = names_.size() < kMostScanners || names_.contains(receiver);
        if (lastKept_)
            names_.insert(receiver);
        else
            ++others_;
    }
    ScannerList list() const {
        ScannerList list;
        for (const auto& name : names_) list.scanners.push_back({name, 0, {}, {}, {}, {}});
        list.otherAdvertisements = others_;
        return list;
    }

  private:
    std::set<std::string> names_;
    std::uint64_t others_ = 0;
    std::string last_;
    bool lastKept_ = true;
};

// Reads a recording once, from start to end: it hands out the advertisements of the receiver asked for,
// each with its iBeacon frame parsed, and sums up everything it read on the way.
class RecordingPass {
  public:
    explicit RecordingPass(const ReplayOptions& options)
        : scanner_(options.scanner), reader_(platform::RecordingReader::open(options.recording)) {
        summary_.format = reader_->format();
    }

    /// The next advertisement of the receiver asked for into `read`; false at the end.
    bool next(ReadAdvertisement& read) {
        while (reader_->next(read.heard)) {
            if (scanner_ && read.heard.receiver != *scanner_) {
                others_.add(read.heard.receiver);
                continue;
            }
            read.place = reader_->place();
            read.frame = platform::parseIBeacon(read.heard.data);
            count(read);
            return true;
        }
        return false;
    }

    /// Everything read so far.
    RecordingSummary summary() const {
        auto summary = summary_;
        summary.devices = devices_.count();
        summary.median = middle_.median();
        summary.warning = reader_->warning();
        return summary;
    }
    const OddTimes& early() const { return early_; }
    const OddTimes& backwards() const { return backwards_; }
    std::string placeText(std::uint64_t place) const { return reader_->placeText(place); }
    ScannerList otherReceivers() const { return others_.list(); }

  private:
    void count(const ReadAdvertisement& read) {
        const auto at = read.heard.at;
        if (summary_.advertisements++ == 0) summary_.first = summary_.last = at;
        // A clock set back while recording: such times are played at the time already reached.
        if (at < summary_.last) backwards_.add(at, read.place);
        summary_.last = std::max(summary_.last, at);
        middle_.add(at);
        if (at < kYear2000) early_.add(at, read.place);
        devices_.add(read.heard.address);
        if (read.frame) ++summary_.beaconAdvertisements;
    }

    std::optional<std::string> scanner_;
    std::unique_ptr<platform::RecordingReader> reader_;
    RecordingSummary summary_;
    DistinctCount devices_;
    MedianTime middle_;
    OddTimes early_, backwards_;
    OtherReceivers others_;
};

// What the first advertisements tell: how often each UUID was heard and its beacons, to choose the app's UUID
// and the server's contents before anything is played.
struct LookAhead {
    std::map<UUIDBytes, std::uint64_t> heard;
    std::map<UUIDBytes, std::set<BeaconNumbers>> beacons;
    /// The iBeacons read, to be played first, when the recording cannot be read a second time (a pipe). A
    /// file is read again from its start instead: a crowd of iBeacons read ahead would cost memory.
    std::vector<ReadAdvertisement> kept;
};

// Reads ahead kLookAhead advertisements, or on to the first iBeacon. The radio's other traffic is counted
// and let go: it is never beacon hardware, so the engine makes nothing of it, and a crowd of phones costs
// no memory.
LookAhead lookAhead(RecordingPass& pass, bool keep) {
    LookAhead ahead;
    ReadAdvertisement read;
    for (std::size_t count = 0; (count < kLookAhead || ahead.heard.empty()) && pass.next(read); ++count) {
        if (!read.frame) continue;
        const auto& uuid = read.frame->proximityUUID.bytes;
        ++ahead.heard[uuid];
        ahead.beacons[uuid].insert({read.frame->major, read.frame->minor});
        if (keep) ahead.kept.push_back(read);
    }
    return ahead;
}

// The UUID heard most often ahead; of those heard equally often, the first in order of their text.
std::optional<std::string> mostHeardUuid(const LookAhead& ahead) {
    const auto byCount = mostHeardFirst(ahead.heard);
    if (byCount.empty()) return std::nullopt;
    return platform::ProximityUUID{byCount.front().first}.uuidString();
}

// A recording that can be opened again and read from its start: a regular file.
bool readableTwice(const std::filesystem::path& recording) {
    std::error_code ignored;
    return std::filesystem::is_regular_file(recording, ignored);
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

std::string oddTimesWarning(const OddTimes& odd, const RecordingPass& pass, const std::string& what,
                            const char* consequence = "the clock passes over such gaps in no time") {
    return std::to_string(odd.count) + (odd.count == 1 ? " advertisement is" : " advertisements are") +
           " dated " + what + ", the first at " + pass.placeText(odd.firstPlace) + " (" +
           dateText(odd.firstAt) + "); " + consequence;
}

// The demo app, watching `uuid`, with an entry and an exit content for each of `beacons`, numbered on from
// `firstId`.
JSON seedFor(const std::string& uuid, const std::vector<BeaconNumbers>& beacons, std::int64_t firstId) {
    auto seed = *parseJSONText(server::demoSeedText());
    seed["apps"][0]["app_config"]["default_beacon_uuid"] = uuid;
    seed["contents"] = JSON::array();
    std::int64_t id = firstId;
    for (const auto& [major, minor] : beacons) {
        const auto name = std::to_string(major) + "/" + std::to_string(minor);
        for (const char* type : {"entry", "exit"}) {
            const bool entry = std::string(type) == "entry";
            seed["contents"].push_back({{"app_token", "demo-token"},
                                        {"display_type", type},
                                        {"beacon", {{"uuid", uuid}, {"major", major}, {"minor", minor}}},
                                        {"content",
                                         {{"id", id++},
                                          {"display_type", type},
                                          {"cool_down_time", 600},
                                          {"text_record", {{"name", (entry ? "Near " : "Left ") + name}}}}}});
        }
    }
    return seed;
}

// The embedded server's contents: an entry and an exit content for every beacon of the app's UUID, added as
// each is first heard, before the library can ask for it. Those heard ahead come first, in order.
class BeaconContents {
  public:
    BeaconContents(std::string uuid, const LookAhead& ahead) : uuid_(std::move(uuid)) {
        if (const auto parsed = platform::ProximityUUID::parse(uuid_)) bytes_ = parsed->bytes;
        if (const auto found = ahead.beacons.find(bytes_); found != ahead.beacons.end()) {
            for (const auto& numbers : found->second) {
                known_.insert(numbers);
                pending_.push_back(numbers);
            }
        }
    }
    /// The seed of the embedded server, with the contents of every beacon noted so far.
    JSON seed() { return take(); }
    /// Notes the beacon of an advertisement, if it is a new one of the app's UUID.
    void note(const ReadAdvertisement& read) {
        if (!read.frame || read.frame->proximityUUID.bytes != bytes_) return;
        const BeaconNumbers numbers{read.frame->major, read.frame->minor};
        if (known_.insert(numbers).second) pending_.push_back(numbers);
    }
    /// Hands the contents of the beacons noted since the last time to the harness's server.
    void addTo(VisitHarness& harness) {
        if (!pending_.empty()) harness.addContents(take());
    }

  private:
    JSON take() {
        auto seed = seedFor(uuid_, pending_, nextId_);
        nextId_ += 2 * static_cast<std::int64_t>(pending_.size());
        pending_.clear();
        return seed;
    }
    std::string uuid_;
    UUIDBytes bytes_{};
    std::set<BeaconNumbers> known_;
    std::vector<BeaconNumbers> pending_;
    std::int64_t nextId_ = 1000;
};

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

std::string ScannerSummary::uuidsLine() const {
    if (uuids.empty()) return "no UUID";
    const auto byCount = mostHeardFirst(uuids);
    std::string text = byCount.size() == 1 ? "UUID" : "UUIDs";
    for (std::size_t i = 0; i < byCount.size(); ++i)
        text += (i == 0 ? " " : ", ") + byCount[i].first + " (" + withThousands(byCount[i].second) + ")";
    return text;
}

namespace {

std::vector<std::pair<std::string, std::uint64_t>> uuidsByCount(const std::vector<ScannerSummary>& scanners) {
    std::map<std::string, std::uint64_t> total;
    for (const auto& scanner : scanners) {
        for (const auto& [uuid, count] : scanner.uuids) total[uuid] += count;
    }
    return mostHeardFirst(total);
}

}  // namespace

std::optional<std::string> ScannerList::mostHeardUuid() const {
    const auto byCount = uuidsByCount(scanners);
    if (byCount.empty()) return std::nullopt;
    return byCount.front().first;
}

std::vector<std::string> ScannerList::otherUuids(const std::string& chosen) const {
    std::vector<std::string> others;
    for (const auto& [uuid, count] : uuidsByCount(scanners)) {
        if (uuid != chosen) others.push_back(uuid);
    }
    return others;
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
    std::map<std::string, ScannerSummary, std::less<>> byName;
    // Counted by the UUID's bytes: turned into text once, not once an advertisement.
    std::map<ScannerSummary*, std::map<UUIDBytes, std::uint64_t>> uuidCounts;
    std::uint64_t others = 0;
    auto reader = platform::RecordingReader::open(recording);
    platform::HeardAdvertisement heard;
    while (reader->next(heard)) {
        auto found = byName.find(heard.receiver);
        if (found == byName.end()) {
            // A file that names a new receiver on every line is not a set of rooms: the rest are counted.
            if (byName.size() >= kMostScanners) {
                ++others;
                continue;
            }
            ScannerSummary added;
            added.name = heard.receiver;
            added.first = added.last = heard.at;
            found = byName.emplace(heard.receiver, std::move(added)).first;
        }
        auto& scanner = found->second;
        ++scanner.advertisements;
        scanner.first = std::min(scanner.first, heard.at);
        scanner.last = std::max(scanner.last, heard.at);
        if (const auto frame = platform::parseIBeacon(heard.data)) {
            scanner.beacons.insert({frame->major, frame->minor});
            auto& counts = uuidCounts[&scanner];
            if (const auto counted = counts.find(frame->proximityUUID.bytes); counted != counts.end()) {
                ++counted->second;
            } else if (counts.size() < kMostUuidsCounted) {
                counts.emplace(frame->proximityUUID.bytes, 1);
            }
        }
    }
    for (auto& [scanner, counts] : uuidCounts) {
        for (const auto& [bytes, count] : counts)
            scanner->uuids[platform::ProximityUUID{bytes}.uuidString()] = count;
    }
    ScannerList list;
    for (auto& [name, scanner] : byName) list.scanners.push_back(std::move(scanner));
    list.otherAdvertisements = others;
    return list;
}

std::string RecordingSummary::line() const {
    return std::to_string(advertisements) + " advertisements (" + std::to_string(beaconAdvertisements) +
           " iBeacon) from " + std::to_string(devices) + " devices over " +
           clockText(std::chrono::duration_cast<std::chrono::milliseconds>(last - first)) + " of recording";
}

namespace {

// Plays the advertisements, those read ahead first, through the harness on the recording's own clock.
class Player {
  public:
    Player(const ReplayOptions& options, RecordingPass& pass, VisitHarness& harness, BeaconContents& contents,
           Date lateFrom)
        : options_(options), pass_(pass), harness_(harness), contents_(contents), lateFrom_(lateFrom) {}

    /// Plays everything, or up to a stop asked for; false when stopped.
    bool play(const std::vector<ReadAdvertisement>& ahead) {
        for (const auto& read : ahead) {
            if (!play(read)) return false;
        }
        ReadAdvertisement read;
        while (pass_.next(read)) {
            if (!play(read)) return false;
        }
        return true;
    }
    const OddTimes& late() const { return late_; }

  private:
    bool play(const ReadAdvertisement& read) {
        const auto at = read.heard.at;
        if (at > lateFrom_) late_.add(at, read.place);
        auto& loop = harness_.loop();
        const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(at - loop.now());
        if (wait.count() > 0) {
            if (options_.speed > 0 && !sleepUnlessStopped(wait / options_.speed, options_.stopRequested))
                return false;
            loop.advance(wait);
        }
        if (options_.stopRequested && options_.stopRequested()) return false;
        contents_.note(read);
        contents_.addTo(harness_);
        harness_.hear(read.heard, read.frame);
        loop.runUntilIdle();
        return true;
    }

    const ReplayOptions& options_;
    RecordingPass& pass_;
    VisitHarness& harness_;
    BeaconContents& contents_;
    Date lateFrom_;
    OddTimes late_;
};

// Why a recording that gave nothing to play cannot be replayed.
std::string nothingToPlay(const ReplayOptions& options, const RecordingPass& pass, std::uint64_t read) {
    if (read > 0) return "no iBeacon in it; give the app's UUID with --uuid";
    if (!options.scanner) return "no advertisement in it";
    // A --scanner that heard nothing: the names there are, so that a typo is plain.
    const auto names = pass.otherReceivers().names();
    return "no scanner named " + *options.scanner + " in it; " +
           (names.empty() ? "its advertisements name no scanner" : "its scanners: " + names);
}

}  // namespace

// The first advertisements are read ahead to choose the app's UUID and the server's contents, then the
// recording is played from its start (read again, or what was read ahead first for a pipe) as it is read.
ReplayResult runReplay(const ReplayOptions& options,
                       const std::function<void(const TimelineEvent&)>& onEvent) {
    ReplayResult result;
    const bool again = readableTwice(options.recording);
    std::optional<RecordingPass> pass(std::in_place, options);
    const auto ahead = lookAhead(*pass, !again);
    const auto summarise = [&] {
        result.summary = pass->summary();
        if (pass->backwards().count > 0)
            result.timeWarnings.insert(result.timeWarnings.begin(),
                                       oddTimesWarning(pass->backwards(), *pass, "before one read earlier",
                                                       "they are played at the time already reached"));
        if (pass->early().count > 0)
            result.timeWarnings.insert(result.timeWarnings.begin(),
                                       oddTimesWarning(pass->early(), *pass, "before 2000"));
    };
    const auto before = pass->summary();
    const auto uuid = options.uuid ? options.uuid : mostHeardUuid(ahead);
    if (before.advertisements == 0 || !uuid) {
        summarise();
        result.failure = nothingToPlay(options, *pass, before.advertisements);
        return result;
    }
    result.uuid = *uuid;
    std::map<std::string, std::uint64_t> heard;
    for (const auto& [bytes, count] : ahead.heard) heard[platform::ProximityUUID{bytes}.uuidString()] = count;
    for (auto& [text, count] : mostHeardFirst(heard)) {
        if (text != *uuid) result.otherUuids.push_back(std::move(text));
    }
    // The clock starts a second before the first advertisement, whether it was read ahead or let go.
    result.start = std::chrono::floor<std::chrono::seconds>(before.first) - 1s;
    BeaconContents contents(*uuid, ahead);
    ServerChoice server{options.host, options.token, options.caFile, contents.seed()};
    VisitHarness harness(server, result.start, onEvent, options.keepTimeline);
    result.failure = harness.failure();
    if (result.failure.empty()) {
        if (again) pass.emplace(options);
        // A day past the middle of what was read ahead is a time no walk has.
        Player player(options, *pass, harness, contents, before.median + std::chrono::hours(24));
        result.interrupted = !player.play(ahead.kept);
        // The end of a recording is radio silence: regions are left, the visit goes up.
        if (!result.interrupted) harness.loop().advance(45s);
        if (player.late().count > 0)
            result.timeWarnings.push_back(oddTimesWarning(
                player.late(), *pass,
                "more than a day after the recording's median time (" + dateText(before.median) + ")"));
    }
    harness.finish();
    summarise();
    result.timeline = harness.takeEvents();
    result.length = harness.length();
    result.storedVisits = harness.storedVisits();
    return result;
}

ReportHeader reportHeader(const ReplayOptions& options, const ReplayResult& result) {
    const auto name = options.recording.filename().string();
    return {options.scanner ? *options.scanner + " \u2014 " + name : name,
            options.recording.string() + ": " + result.summary.line(), result.start};
}

}  // namespace pelm::lab
