#pragma once

#include <string>

#include <pelm/events/visit_event.hpp>
#include <pelm/model/json_binding.hpp>

#include "pelm_lab/visit_harness.hpp"

namespace pelm::lab {

/// The version of the events file's lines, written as "v" in each.
inline constexpr int kEventLinesVersion = events::kVersion;

/// One event as a line of the events file: {"v": 1, "t": virtual ms since 1970, "kind": ..., ...}. The kinds
/// and their fields are described in docs/events.md.
JSON eventJSON(const TimelineEvent& event);

/// A library event in one line: "Feinkost-Tipp [entry] from 1/20", "3 nearby: ...".
std::string describe(const events::VisitEventData& event);
/// "1/20"
std::string beaconLabel(const events::BeaconIdentity& beacon);

}  // namespace pelm::lab
