#include "timeline_output.hpp"

#include <algorithm>
#include <cstdio>

#include <pelm/model/json_text.hpp>

namespace pelm::cli {
namespace {

const char* label(const TimelineEvent& event) {
    switch (event.kind) {
        case TimelineEvent::Kind::Content:
            return "CONTENT ";
        case TimelineEvent::Kind::Devices:
            return "nearby  ";
        case TimelineEvent::Kind::Log:
            return "LOG     ";
        default:
            return event.critical ? "STATUS! " : "status  ";
    }
}

}  // namespace

std::string clockText(std::chrono::milliseconds at) {
    char text[32];
    const auto total = at.count();
    std::snprintf(text, sizeof text, "%02lld:%02lld.%lld", static_cast<long long>(total / 60000),
                  static_cast<long long>(total / 1000 % 60), static_cast<long long>(total / 100 % 10));
    return text;
}

std::optional<NearbyLines> nearbyLines(const std::string& text) {
    if (text == "all") return NearbyLines::All;
    if (text == "changes") return NearbyLines::Changes;
    if (text == "none") return NearbyLines::None;
    return std::nullopt;
}

void TimelinePrinter::print(const TimelineEvent& event) {
    if (event.kind == TimelineEvent::Kind::Devices && !shows(event)) return;
    std::printf("  [%s] %s %s\n", clockText(event.at).c_str(), label(event), event.text.c_str());
    std::fflush(stdout);
}

bool TimelinePrinter::shows(const TimelineEvent& devices) {
    if (nearby_ != NearbyLines::Changes) return nearby_ == NearbyLines::All;
    // The set, not the order: the devices come strongest first, and that order changes with every step.
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
    if (!path) return true;
    out_.emplace(*path, std::ios::trunc);
    if (!*out_) error = "cannot write " + *path;
    return static_cast<bool>(*out_);
}

void EventsFile::write(const TimelineEvent& event) {
    if (out_) *out_ << jsonText(eventJSON(event)) << '\n';
}

bool EventsFile::close() {
    if (!out_) return true;
    out_->close();
    return static_cast<bool>(*out_);
}

}  // namespace pelm::cli
