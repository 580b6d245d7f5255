#pragma once

#include <chrono>
#include <fstream>
#include <map>
#include <optional>
#include <string>

#include "pelm_lab/output_file.hpp"
#include "pelm_lab/visit_harness.hpp"

namespace pelm::lab {

/// "MM:SS.s"
std::string clockText(std::chrono::milliseconds at);

/// Which reports of nearby devices the terminal shows: every one (every two seconds while any is near), only
/// those where the set of devices changed, or none. The events file always has them all. A device at the edge
/// of range drops out of one report and is back in the next; it counts as gone only after kNearbyMisses
/// reports in a row without it, so that flicker is not a change.
enum class NearbyLines { All, Changes, None };
inline constexpr int kNearbyMisses = 5;

/// "all", "changes" or "none".
std::optional<NearbyLines> nearbyLines(const std::string& text);

/// The terminal timeline, one line an event: "  [01:14.0] CONTENT  Feinkost-Tipp [entry]". Status lines are
/// shown exactly as the host app received them.
class TimelinePrinter {
  public:
    explicit TimelinePrinter(NearbyLines nearby) : nearby_(nearby) {}
    void print(const TimelineEvent& event);

  private:
    // Whether a report of nearby devices is worth a line.
    bool shows(const events::NearbyDevices& devices);

    NearbyLines nearby_;
    // The devices shown as near, each with the reports in a row that have missed it since.
    std::map<std::string, int> near_;
};

/// The visits the embedded server stored: a short table each (beacon, entrance, exit, earliest first), or
/// with `asJSON` the records as the server keeps them.
void printStoredVisits(const JSON& visits, bool asJSON);

/// --events FILE: every event of the run, one JSON object a line, in order (see eventJSON).
class EventsFile {
  public:
    /// Nothing is written without a path. False (with `error` set) when the file cannot be made.
    bool open(const std::optional<std::string>& path, std::string& error);
    void write(const TimelineEvent& event);
    /// From now on each line also names the receiver it was replayed from ("scanner").
    void setScanner(std::string name) { scanner_ = std::move(name); }
    /// Puts the file in place; false (with `error` set) when a write failed on the way.
    bool close(std::string& error);

  private:
    OutputFile out_;
    std::optional<std::string> scanner_;
};

}  // namespace pelm::lab
