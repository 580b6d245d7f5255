#include "timeline_output.hpp"

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

void printEvent(const TimelineEvent& event) {
    std::printf("  [%s] %s %s\n", clockText(event.at).c_str(), label(event), event.text.c_str());
    std::fflush(stdout);
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
