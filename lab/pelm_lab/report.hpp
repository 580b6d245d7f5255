#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include <pelm/model/json_binding.hpp>

#include "pelm_lab/visit_harness.hpp"
#include "pelm_lab/visit_picture.hpp"

namespace pelm::lab {

/// What a report says about its run before the events do.
struct ReportHeader {
    /// The store: a scenario's name, or the recording's file name.
    std::string store;
    /// Where the beacons came from, one line.
    std::string source;
    /// The instant the run started at; the events count from it.
    Date start{};
};

/// What a report keeps of a run, taken event by event as the run goes: the picture (bounded whatever the
/// run's length), the first and last kTableRows lines of what the host app was told, and the visits
/// uploaded. A day's replay keeps a few megabytes.
class RunReport {
  public:
    static constexpr std::size_t kTableRows = 500;

    void add(const TimelineEvent& event);
    VisitPicture picture(std::chrono::milliseconds length) const { return picture_.picture(length); }
    /// The events table.
    std::string table() const;
    /// The visits uploaded, as clock times: "09:03:50–09:10:00 UTC", or "none".
    std::string visitTimes() const;

  private:
    struct Row {
        std::chrono::milliseconds at;
        std::string text;
        const char* kind;
    };

    PictureBuilder picture_;
    std::vector<Row> first_;
    std::deque<Row> last_;
    std::size_t leftOut_ = 0;
    std::vector<std::string> visits_;
};

/// A self-contained HTML page read off the same events as --events: a summary of the visit, one row per
/// beacon (when the radio heard it, its signal in dBm, the entries, exits, content and hold-backs the host
/// app was told of), the devices discovery reported with low batteries flagged, and the timeline as a table.
/// The signal is thinned, so a page of a day's recording stays small.
std::string htmlReport(const ReportHeader& header, const RunReport& run, std::chrono::milliseconds length,
                       const JSON& storedVisits);
std::string htmlReport(const ReportHeader& header, const std::vector<TimelineEvent>& events,
                       std::chrono::milliseconds length, const JSON& storedVisits);

/// One receiver of a multi-scanner recording, replayed as a phone of its own.
struct RoomRun {
    /// The scanner's name in the recording.
    std::string name;
    /// What it heard, one line.
    std::string heard;
    Date start{};
    RunReport run;
    std::chrono::milliseconds length{0};
    JSON storedVisits = JSON::array();
};

/// One page for a recording heard by several receivers: the rooms with their visits as clock times, then
/// each room as htmlReport draws a run, named by room and recording.
std::string htmlRoomsReport(const std::string& recording, const std::string& source,
                            const std::vector<RoomRun>& rooms);

/// --report FILE, tried before the run so that a path that cannot be written fails before the wait, and
/// written only once the run is over.
class ReportFile {
  public:
    /// Nothing is written without a path. False (with `error` set) when the file cannot be made.
    bool open(const std::optional<std::string>& path, std::string& error);
    /// Writes the page; false (with `error` set) when the write failed.
    bool write(const std::string& html, std::string& error);
    const std::optional<std::string>& path() const { return path_; }

  private:
    std::optional<std::string> path_;
};

}  // namespace pelm::lab
