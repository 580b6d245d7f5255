#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli.hpp"
#include "pelm_lab/report.hpp"
#include "pelm_lab/timeline_output.hpp"

namespace pelm::cli {

/// Where simulate and replay send a run besides the terminal's header lines: the timeline (--nearby), the
/// events file (--events) and the report (--report). The files are opened before the run, so that a path
/// that cannot be written fails at once, and finished after it.
class RunOutput {
  public:
    explicit RunOutput(std::string command) : command_(std::move(command)) {}

    /// Reads --nearby and opens the files; the exit code when it cannot: 2 for a bad --nearby or an output
    /// that names one of the `inputs` (or the other output), 1 for a file that cannot be made. Nothing is
    /// written before these checks.
    std::optional<int> open(const Arguments& args, const std::vector<std::string>& inputs);
    /// One event, to the terminal, the events file and the report being drawn up.
    void show(const TimelineEvent& event);
    /// The files finished: the events file put in place, the report written; the exit code when one could
    /// not be.
    std::optional<int> finish(const ReportHeader& header, std::chrono::milliseconds length,
                              const JSON& storedVisits);
    /// The rooms' page instead of one run's, for --scanner all.
    std::optional<int> finishRooms(const std::string& recording, const std::string& source,
                                   const std::vector<RoomRun>& rooms);
    /// Each event from now on comes from this receiver, and goes into a report of its own.
    void startRoom(const std::string& scanner) {
        events_.setScanner(scanner);
        run_ = {};
    }
    /// The report of the run (or room) so far, taken away.
    RunReport takeRun() { return std::exchange(run_, {}); }
    /// A run stopped by a signal: the events shown so far are put in place (they are what the run did), an
    /// earlier report stays as it was; says so and gives `code`.
    int interrupted(int code);

  private:
    std::optional<int> failed(const std::string& why, int code) const;

    std::string command_;
    std::string eventsPath_;
    std::optional<TimelinePrinter> printer_;
    EventsFile events_;
    ReportFile report_;
    RunReport run_;
};

}  // namespace pelm::cli
