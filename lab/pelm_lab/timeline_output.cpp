#include "pelm_lab/timeline_output.hpp"

#include <algorithm>
#include <cstdio>

#include <pelm/model/json_text.hpp>

#include "pelm_lab/event_lines.hpp"

namespace pelm::lab {
namespace {

const char* label(const TimelineEvent& event) {
    if (event.as<events::ContentHandedOn>()) return "CONTENT ";
    if (event.as<events::NearbyDevices>()) return "nearby  ";
    if (event.kind == TimelineEvent::Kind::Log) return "LOG     ";
    return event.critical ? "STATUS! " : "status  ";
}

}  // namespace

std::string clockText(std::chrono::milliseconds at) {
    char text[32];
    const auto total = at.count();
    std::snprintf(text, sizeof text, "%02lld:%02lld.%lld", static_cast<long long>(total / 60000),
                  static_cast<long long>(total / 1000 % 60), static_cast<long long>(total / 100 % 10));
    return text;
}

namespace {

std::string textAt(const JSON& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : "?";
}

// "2026-11-22T09:03:50.000+0000" as "09:03:50"; anything else as it is.
std::string timeOfDay(const std::string& date) {
    return date.size() >= 19 && date[10] == 'T' ? date.substr(11, 8) : date;
}

std::string beaconText(const JSON& beacon) {
    return textAt(beacon, "major") + "/" + textAt(beacon, "minor");
}

void printVisitTable(const JSON& visit, std::size_t number) {
    const JSON none = JSON::object();
    const auto& session = visit.contains("session") && visit["session"].is_object() ? visit["session"] : none;
    const auto& beacon = visit.contains("beacon") && visit["beacon"].is_object() ? visit["beacon"] : none;
    std::printf("  visit %zu: session %s to %s, beacon %s\n", number,
                timeOfDay(textAt(session, "start_time")).c_str(),
                timeOfDay(textAt(session, "end_time")).c_str(), beaconText(beacon).c_str());
    std::vector<const JSON*> lines;
    if (visit.contains("session_logs") && visit["session_logs"].is_array()) {
        for (const auto& line : visit["session_logs"]) {
            if (line.is_object()) lines.push_back(&line);
        }
    }
    // The dates are written alike, so their texts sort as their instants do.
    std::stable_sort(lines.begin(), lines.end(), [](const JSON* a, const JSON* b) {
        return textAt(*a, "entrance_time") < textAt(*b, "entrance_time");
    });
    std::printf("    %-12s %-10s %s\n", "beacon", "entrance", "exit");
    for (const JSON* line : lines) {
        std::printf("    %-12s %-10s %s\n", beaconText(*line).c_str(),
                    timeOfDay(textAt(*line, "entrance_time")).c_str(),
                    timeOfDay(textAt(*line, "exit_time")).c_str());
    }
}

}  // namespace

void printStoredVisits(const JSON& visits, bool asJSON) {
    if (asJSON) {
        std::printf("%s\n", jsonText(visits, 2).c_str());
        return;
    }
    if (!visits.is_array() || visits.empty()) {
        std::printf("  (none)\n");
        return;
    }
    for (std::size_t i = 0; i < visits.size(); ++i) printVisitTable(visits[i], i + 1);
    std::printf("  (--json shows the records whole)\n");
}

std::optional<NearbyLines> nearbyLines(const std::string& text) {
    if (text == "all") return NearbyLines::All;
    if (text == "changes") return NearbyLines::Changes;
    if (text == "none") return NearbyLines::None;
    return std::nullopt;
}

void TimelinePrinter::print(const TimelineEvent& event) {
    // What the radio heard is for the report and the events file; the host app never sees it. Of the
    // library's events the terminal shows content and nearby devices: the status lines tell the rest.
    if (event.kind == TimelineEvent::Kind::Heard) return;
    const auto* nearby = event.as<events::NearbyDevices>();
    if (event.kind == TimelineEvent::Kind::Visit && !nearby && !event.as<events::ContentHandedOn>()) return;
    if (nearby && !shows(*nearby)) return;
    std::printf("  [%s] %s %s\n", clockText(event.at).c_str(), label(event), event.text.c_str());
    std::fflush(stdout);
}

bool TimelinePrinter::shows(const events::NearbyDevices& devices) {
    if (nearby_ != NearbyLines::Changes) return nearby_ == NearbyLines::All;
    // The set, not the order: discovery's order is its own and may change with every report.
    bool changed = false;
    for (auto& [id, misses] : near_) ++misses;
    for (const auto& device : devices.devices) {
        const auto [entry, added] = near_.insert_or_assign(device.identifier, 0);
        changed = changed || added;
    }
    for (auto it = near_.begin(); it != near_.end();) {
        const bool gone = it->second >= kNearbyMisses;
        changed = changed || gone;
        it = gone ? near_.erase(it) : std::next(it);
    }
    return changed;
}

bool EventsFile::open(const std::optional<std::string>& path, std::string& error) {
    return !path || out_.open(*path, error);
}

// Each line goes to the file as it is printed, so a run that is killed keeps every event it showed.
void EventsFile::write(const TimelineEvent& event) {
    if (!out_.isOpen()) return;
    auto line = eventJSON(event);
    if (scanner_) line["scanner"] = *scanner_;
    out_.stream() << jsonText(line) << std::endl;
}

bool EventsFile::close(std::string& error) {
    return out_.commit(error);
}

}  // namespace pelm::lab
