// The terminal timeline with `--nearby changes`: a line when the set of nearby devices changes, and none for
// a device at the edge of range that drops out of a report and is back in the next.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "pelm_lab/event_lines.hpp"
#include "pelm_lab/timeline_output.hpp"

namespace pelm::lab {
namespace {

TimelineEvent report(const std::vector<std::string>& ids) {
    events::NearbyDevices devices;
    for (const auto& id : ids) devices.devices.push_back({id, 0, "", 0, -70});
    TimelineEvent event{};
    event.kind = TimelineEvent::Kind::Visit;
    event.visit = devices;
    event.text = describe(*event.visit);
    return event;
}

// How many lines the printer wrote for `reports`, in order.
int linesFor(const std::vector<std::vector<std::string>>& reports) {
    TimelinePrinter printer(NearbyLines::Changes);
    ::testing::internal::CaptureStdout();
    for (const auto& ids : reports) printer.print(report(ids));
    const auto out = ::testing::internal::GetCapturedStdout();
    return static_cast<int>(std::count(out.begin(), out.end(), '\n'));
}

TEST(TimelineNearby, AFlickeringDeviceIsNoChangeUntilItHasMissedEnoughReportsInARow) {
    EXPECT_EQ(linesFor({{"a", "b"}, {"a", "b"}}), 1);
    // Missing from one report (or from all but the last of kNearbyMisses) and back: still the same set.
    std::vector<std::vector<std::string>> flicker{{"a", "b"}};
    for (int miss = 1; miss < kNearbyMisses; ++miss) flicker.push_back({"a"});
    flicker.push_back({"a", "b"});
    EXPECT_EQ(linesFor(flicker), 1);
    // Gone for kNearbyMisses reports in a row: one line says so; a new device is a line at once.
    std::vector<std::vector<std::string>> gone{{"a", "b"}};
    for (int miss = 1; miss <= kNearbyMisses; ++miss) gone.push_back({"a"});
    EXPECT_EQ(linesFor(gone), 2);
    EXPECT_EQ(linesFor({{"a"}, {"a", "c"}}), 2);
}

}  // namespace
}  // namespace pelm::lab
