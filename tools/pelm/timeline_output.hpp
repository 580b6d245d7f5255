#pragma once

#include <chrono>
#include <fstream>
#include <optional>
#include <string>

#include "visit_harness.hpp"

namespace pelm::cli {

/// "MM:SS.s"
std::string clockText(std::chrono::milliseconds at);

/// One line of the terminal timeline: "  [01:14.0] CONTENT  Feinkost-Tipp [entry]".
void printEvent(const TimelineEvent& event);

/// --events FILE: every event the host app received, one JSON object a line, in order.
class EventsFile {
  public:
    /// Nothing is written without a path. False (with `error` set) when the file cannot be made.
    bool open(const std::optional<std::string>& path, std::string& error);
    void write(const TimelineEvent& event);
    /// False when a write failed on the way.
    bool close();

  private:
    std::optional<std::ofstream> out_;
};

}  // namespace pelm::cli
