// The visit report read back from a run's events: the demo walk, a long recording and texts that are not
// what the report expects.
#include <gmock/gmock.h>

#include <algorithm>

#include <pelm/model/json_text.hpp>

#include "pelm_server/demo_seed.hpp"
#include "report.hpp"
#include "simulation.hpp"
#include "visit_picture.hpp"

namespace pelm::cli {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;

const BeaconRow& rowOf(const VisitPicture& picture, int minor) {
    const auto found = std::find_if(picture.beacons.begin(), picture.beacons.end(),
                                    [&](const BeaconRow& row) { return row.key.minor == minor; });
    EXPECT_NE(found, picture.beacons.end()) << "no row for minor " << minor;
    return *found;
}

std::vector<BeaconMark::Kind> kinds(const BeaconRow& row) {
    std::vector<BeaconMark::Kind> out;
    for (const auto& mark : row.marks) out.push_back(mark.kind);
    return out;
}

TEST(VisitReport, TheDemoWalkGivesEveryBeaconItsRowMarksSignalAndBattery) {
    SimulationOptions options;
    options.scenario = platform::Scenario::fromJSON(*parseJSONText(server::demoScenarioText()));
    const auto result = runSimulation(options);
    ASSERT_TRUE(result.configured) << result.failure;
    const auto picture = pictureOf(result.timeline, result.simulated);

    ASSERT_EQ(picture.beacons.size(), 5u);
    EXPECT_EQ(picture.beaconsMet(), 5u);
    EXPECT_EQ(picture.upload, VisitPicture::Upload::Succeeded);
    ASSERT_TRUE(picture.visitStart && picture.visitEnd);
    EXPECT_LT(*picture.visitStart, *picture.visitEnd);
    using Kind = BeaconMark::Kind;
    // The till: entered, left on the way out, and the survey handed over for leaving it.
    const auto& till = rowOf(picture, 3);
    EXPECT_THAT(kinds(till), ::testing::ElementsAre(Kind::Entry, Kind::Exit, Kind::ExitContent));
    EXPECT_EQ(till.marks.back().text, "Wie war Ihr Einkauf?");
    // The drinks: entry content, left, back within the cool-down and held back.
    EXPECT_THAT(kinds(rowOf(picture, 20)), ::testing::ElementsAre(Kind::Entry, Kind::EntryContent, Kind::Exit,
                                                                  Kind::HeldBack, Kind::Entry));
    for (const auto& row : picture.beacons) {
        ASSERT_FALSE(row.signal.empty()) << row.key.label();
        for (const auto& line : row.signal) {
            for (const auto& point : line) {
                EXPECT_GE(point.rssi, -82) << row.key.label();  // the radio's threshold
                EXPECT_LE(point.rssi, -20) << row.key.label();
            }
        }
    }
    const auto* drinks = picture.device("Tg20");
    ASSERT_NE(drinks, nullptr);
    EXPECT_TRUE(drinks->lowBattery());
    EXPECT_FALSE(picture.device("Tg01")->lowBattery());

    const auto page =
        htmlReport({"Demo", "a test", result.start}, result.timeline, result.simulated, result.storedVisits);
    EXPECT_THAT(page, HasSubstr("class='mark-name"));
    EXPECT_THAT(page, HasSubstr(">Wie war Ihr Einkauf?</text>"));
    EXPECT_THAT(page, HasSubstr("data-mark='held-back'"));
    EXPECT_THAT(page, HasSubstr("uploaded; the server stored 1 visit"));
}

// Two hours of a shopper among four beacons, heard every second and reported by discovery every two.
std::vector<TimelineEvent> longRun() {
    const std::string uuid = "F7826DA6-4FA2-4E98-8024-BC5B71E0893E";
    std::vector<TimelineEvent> events;
    TimelineEvent start{};
    start.kind = TimelineEvent::Kind::Status;
    start.text = "Starting core monitoring for uuid: " + uuid;
    events.push_back(start);
    for (int second = 1; second <= 7200; ++second) {
        TimelineEvent heard{};
        heard.at = std::chrono::seconds(second);
        heard.kind = TimelineEvent::Kind::Heard;
        for (int minor = 1; minor <= 4; ++minor) {
            // Each beacon falls silent for a minute every ten.
            if ((second / 60 + minor) % 10 == 0) continue;
            heard.signals.push_back(
                {uuid, 1, minor, "dev" + std::to_string(minor), -60 - (second * minor) % 25, 10});
        }
        heard.signals.push_back({"00000000-0000-0000-0000-000000000000", 9, 9, "other", -70, 1});
        events.push_back(heard);
        if (second % 2 == 0) {
            TimelineEvent nearby{};
            nearby.at = heard.at;
            nearby.kind = TimelineEvent::Kind::Devices;
            nearby.devices.push_back({"dev1", 0, "4.1", static_cast<std::uint64_t>(100 - second / 80), -61});
            events.push_back(nearby);
        }
    }
    return events;
}

TEST(VisitReport, ATwoHourRunIsThinnedToAPageThatStaysSmall) {
    const auto events = longRun();
    const auto picture = pictureOf(events, 7200s);
    ASSERT_EQ(picture.beacons.size(), 4u);
    EXPECT_EQ(picture.otherBeacons, 1u);
    for (const auto& row : picture.beacons) {
        std::size_t points = 0;
        for (const auto& line : row.signal) points += line.size();
        EXPECT_LE(points, 1000u);  // of 7,200 seconds heard
        // The silences split the line and the band: twelve of them in two hours.
        EXPECT_GE(row.signal.size(), 11u);
        EXPECT_LE(row.heard.size(), 14u);
    }
    EXPECT_TRUE(picture.device("dev1")->lowBattery());  // 10 % by the end
    const auto page = htmlReport({"Mall", "two hours", Date{}}, events, 7200s, JSON::array());
    EXPECT_LT(page.size(), 200'000u);
    EXPECT_THAT(page, HasSubstr(">2:00:00</text>"));  // the axis reaches the end
    EXPECT_THAT(page, Not(HasSubstr("nan")));
}

TEST(VisitReport, TextsItDoesNotExpectAreShownEscapedAndAttachedToNothing) {
    std::vector<TimelineEvent> events;
    const auto add = [&](TimelineEvent::Kind kind, std::string text, int second) {
        TimelineEvent event{};
        event.kind = kind;
        event.at = std::chrono::seconds(second);
        event.text = std::move(text);
        events.push_back(event);
    };
    add(TimelineEvent::Kind::Status, "Entering SUB Region: U - 1", 1);
    add(TimelineEvent::Kind::Status, "Entering SUB Region: U - 1 - 70000", 2);
    add(TimelineEvent::Kind::Status, "Session Log: major: x minor: 1 uuid: U", 3);
    add(TimelineEvent::Kind::Status, "Exiting SUB Region: ", 4);
    add(TimelineEvent::Kind::Content, "", 5);
    events.back().contentName = "<script>alert(1)</script>";
    events.back().displayType = "exit";

    const auto picture = pictureOf(events, 10s);
    EXPECT_TRUE(picture.beacons.empty());
    ASSERT_EQ(picture.contents.size(), 1u);
    EXPECT_FALSE(picture.contents[0].beacon);  // no exit came before it
    EXPECT_EQ(picture.upload, VisitPicture::Upload::None);

    const auto page = htmlReport({"<Store>", "x", Date{}}, events, 10s, JSON::array());
    EXPECT_THAT(page, Not(HasSubstr("<script>alert")));
    EXPECT_THAT(page, HasSubstr("&lt;script&gt;alert(1)&lt;/script&gt;"));
    EXPECT_THAT(page, HasSubstr("the store's region was never entered"));
    EXPECT_THAT(page, HasSubstr("not uploaded"));
}

}  // namespace
}  // namespace pelm::cli
