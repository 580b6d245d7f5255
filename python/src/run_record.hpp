#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <pybind11/pybind11.h>

#include <pelm/model/json_binding.hpp>

#include "pelm_lab/report.hpp"
#include "pelm_lab/visit_harness.hpp"

namespace pelm::python {

using lab::ReportHeader;
using lab::TimelineEvent;

/// What a replay or a simulation leaves for Python: its events, the visits the server stored and what a
/// report needs. The tables and the page are drawn from the events when asked for, so a run costs no more
/// than the command's until they are.
class RunRecord {
  public:
    /// The events but what the radio heard, a column a field: "t" (ms since 1970), "at" (ms from the
    /// start), "kind", "text" and the fields of each kind, None where a kind has none.
    pybind11::dict events() const;
    /// What the radio heard, one row a beacon device a second: "t", "uuid", "major", "minor", "device",
    /// "rssi", "advertisements".
    pybind11::dict signals() const;
    /// The HTML page of the run.
    std::string html() const;

    ReportHeader header;
    std::chrono::milliseconds length{0};
    JSON storedVisits = JSON::array();
    std::vector<TimelineEvent> timeline;
};

}  // namespace pelm::python
