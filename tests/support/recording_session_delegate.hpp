#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <pelm/session/pelm_session_manager_delegate.hpp>

namespace pelm::testing {

/// Keeps what a session manager tells it, in order: content as "content <id>", lines as "line <text>" with
/// " (critical)" appended for critical ones.
class RecordingSessionDelegate : public PelmSessionManagerDelegate {
  public:
    void didFindNewContent(std::shared_ptr<Content> content, std::shared_ptr<Beacon> beacon) override {
        events.push_back("content " + (content->id ? std::to_string(*content->id) : std::string("?")));
        contents.push_back(content);
        beacons.push_back(beacon);
    }
    void didChangeSessionStatus(const std::string& status, bool critical) override {
        events.push_back("line " + status + (critical ? " (critical)" : ""));
    }
    std::vector<std::string> take() { return std::exchange(events, {}); }

    std::vector<std::string> events;
    std::vector<std::shared_ptr<Content>> contents;
    std::vector<std::shared_ptr<Beacon>> beacons;
};

}  // namespace pelm::testing
