#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "pelm_lab/report.hpp"
#include "pelm_lab/visit_harness.hpp"

namespace pelm::lab {

struct ReplayOptions {
    std::filesystem::path recording;
    /// Keep only the advertisements this receiver heard.
    std::optional<std::string> scanner;
    /// The app's proximity UUID; the iBeacon UUID heard most often when not given.
    std::optional<std::string> uuid;
    /// 0: as fast as it goes; otherwise recorded seconds per wall second.
    double speed = 0;
    /// A server of one's own; the embedded pelm-server (with content for every beacon heard) when not given.
    std::optional<std::string> host, token, caFile;
    /// Asked between advertisements; true ends the replay where it is (Ctrl-C).
    std::function<bool()> stopRequested;
    /// Keep every event for ReplayResult::timeline (a report needs them). Without it a replay takes the same
    /// memory however long the recording: the events go only to the callback, as they happen.
    bool keepTimeline = true;
};

/// What one pass over a recording found.
struct RecordingSummary {
    std::uint64_t advertisements = 0;
    std::uint64_t beaconAdvertisements = 0;
    std::uint64_t devices = 0;
    Date first{}, last{};
    /// The middle of the advertisements' times (from a thinned sample).
    Date median{};
    std::string format;
    std::optional<std::string> warning;
    /// "N advertisements (M iBeacon) from D devices over MM:SS.s of recording"
    std::string line() const;
};

/// One receiver of a recording: what it heard.
struct ScannerSummary {
    /// As the recording names it; empty for advertisements that name no receiver.
    std::string name;
    std::uint64_t advertisements = 0;
    Date first{}, last{};
    /// The iBeacons it heard, by major and minor.
    std::set<std::pair<int, int>> beacons;
    /// How often it heard each UUID, the first kMostUuidsCounted distinct ones.
    std::map<std::string, std::uint64_t> uuids;
    /// "1,204 advertisements over 12:03.0, beacons 0/5 0/6"
    std::string heard() const;
    /// "UUIDs DAF246CE-8363-11E4-B116-123B93F75CBA (1,100), F7826DA6-... (104)", or "no UUID"
    std::string uuidsLine() const;
    /// "Room201: " and what it heard
    std::string line() const;
};

/// Every receiver the recording names, by name: the first kMostScanners named, and how many advertisements
/// came from receivers beyond them.
struct ScannerList {
    std::vector<ScannerSummary> scanners;
    std::uint64_t otherAdvertisements = 0;
    /// "A, B, C"
    std::string names() const;
    /// The UUID heard most often over all scanners; of those heard equally often, the first in order of
    /// their text. None without an iBeacon.
    std::optional<std::string> mostHeardUuid() const;
    /// The other UUIDs heard, most heard first.
    std::vector<std::string> otherUuids(const std::string& chosen) const;
};
inline constexpr std::size_t kMostScanners = 256;
inline constexpr std::size_t kMostUuidsCounted = 64;

/// One pass over the recording. Throws platform::RecordingError for a file that is not what it claims.
ScannerList listScanners(const std::filesystem::path& recording);

struct ReplayResult {
    RecordingSummary summary;
    std::string uuid;
    /// The other UUIDs heard where the app's was chosen (the advertisements read ahead), most heard first.
    std::vector<std::string> otherUuids;
    Date start{};
    /// Every event, when ReplayOptions::keepTimeline.
    std::vector<TimelineEvent> timeline;
    /// From the start to the last event.
    std::chrono::milliseconds length{0};
    JSON storedVisits = JSON::array();
    /// Why the replay could not run; empty when it ran.
    std::string failure;
    /// Times no walk can have (before 2000, or a day past the median), each line naming the first one's
    /// place.
    std::vector<std::string> timeWarnings;
    /// The replay was ended early by stopRequested.
    bool interrupted = false;
};

/// Plays a recording through the region engine and the whole library: the virtual clock reads the
/// recording's own times, monitoring starts a second before the first advertisement, and after the last one
/// the clock runs on (radio silence) until every region has been left and the visit uploaded. Throws
/// platform::RecordingError for a file that is not what it claims.
ReplayResult runReplay(const ReplayOptions& options,
                       const std::function<void(const TimelineEvent&)>& onEvent = {});

/// What the report of a replay says before its events: the recording's name (the receiver's first, when
/// one was chosen) and what the recording holds.
ReportHeader reportHeader(const ReplayOptions& options, const ReplayResult& result);

}  // namespace pelm::lab
