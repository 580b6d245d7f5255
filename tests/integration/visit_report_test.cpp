// The visit report read back from a run's events: the demo walk, a long recording and texts that are not
// what the report expects.
#include <gmock/gmock.h>

#include <algorithm>
#include <map>

#include <pelm/model/content.hpp>
#include <pelm/model/json_text.hpp>

#include "pelm_lab/demo_scenario.hpp"
#include "pelm_lab/event_lines.hpp"
#include "pelm_lab/report.hpp"
#include "pelm_lab/simulation.hpp"
#include "pelm_lab/visit_picture.hpp"

namespace pelm::lab {
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
    options.scenario = platform::Scenario::fromJSON(*parseJSONText(lab::demoScenarioText()));
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

// The demo store's scenario with only the beacons `minors`, all at (x, y), and a shopper who walks in from
// far away, stays `dwell` seconds and leaves, `visits` times.
SimulationOptions walkTo(std::vector<int> minors, int x, int y, int dwell, int visits) {
    auto scenario = *parseJSONText(lab::demoScenarioText());
    JSON beacons = JSON::array();
    for (auto beacon : scenario["beacons"]) {
        if (std::find(minors.begin(), minors.end(), beacon["minor"].get<int>()) == minors.end()) continue;
        beacon["x"] = x;
        beacon["y"] = y;
        beacons.push_back(beacon);
    }
    scenario["beacons"] = beacons;
    JSON points = JSON::array();
    for (int visit = 0; visit < visits; ++visit) {
        points.push_back({{"x", x - 80}, {"y", y}, {"dwell", 60}});
        points.push_back({{"x", x}, {"y", y}, {"dwell", dwell}});
    }
    points.push_back({{"x", x - 80}, {"y", y}});
    scenario["path"]["points"] = points;
    SimulationOptions options;
    options.scenario = platform::Scenario::fromJSON(scenario);
    return options;
}

std::map<std::string, std::string> contentBeacons(const std::vector<TimelineEvent>& timeline) {
    std::map<std::string, std::string> beaconOf;
    for (const auto& event : timeline) {
        const auto line = eventJSON(event);
        if (line["kind"] == "content") beaconOf[line["name"]] = line["beacon"]["minor"];
    }
    return beaconOf;
}

TEST(VisitReport, TwoBeaconsFirstHeardInTheSameSecondEachKeepTheirOwnContent) {
    const auto result = runSimulation(walkTo({9, 11}, 12, 3, 30, 1));
    ASSERT_TRUE(result.configured) << result.failure;
    const auto beaconOf = contentBeacons(result.timeline);
    EXPECT_EQ(beaconOf.at("Feinkost-Tipp"), "9");
    EXPECT_EQ(beaconOf.at("K\xC3\xA4sewoche"), "11");

    const auto picture = pictureOf(result.timeline, result.simulated);
    const auto entryContent = [](const BeaconRow& row) {
        std::vector<std::string> names;
        for (const auto& mark : row.marks) {
            if (mark.kind == BeaconMark::Kind::EntryContent) names.push_back(mark.text);
        }
        return names;
    };
    EXPECT_THAT(entryContent(rowOf(picture, 9)), ::testing::ElementsAre("Feinkost-Tipp"));
    EXPECT_THAT(entryContent(rowOf(picture, 11)), ::testing::ElementsAre("K\xC3\xA4sewoche"));
    const auto page =
        htmlReport({"Demo", "a test", result.start}, result.timeline, result.simulated, result.storedVisits);
    EXPECT_THAT(page, HasSubstr("Feinkost-Tipp</span> (entry, 1/9)"));
}

TEST(VisitReport, ExitContentHeldBackIsDrawnAndCounted) {
    // The till's survey comes on leaving it, then not again for an hour.
    const auto result = runSimulation(walkTo({3}, 6, 31, 30, 2));
    ASSERT_TRUE(result.configured) << result.failure;
    const auto picture = pictureOf(result.timeline, result.simulated);
    ASSERT_EQ(picture.contents.size(), 1u);
    EXPECT_EQ(picture.contents[0].displayType, "exit");
    EXPECT_EQ(picture.heldBack, 1u);
    const auto& till = rowOf(picture, 3);
    using Kind = BeaconMark::Kind;
    EXPECT_THAT(kinds(till), ::testing::ElementsAre(Kind::Entry, Kind::Exit, Kind::ExitContent, Kind::Entry,
                                                    Kind::Exit, Kind::HeldBack));
    const auto page =
        htmlReport({"Demo", "a test", result.start}, result.timeline, result.simulated, result.storedVisits);
    EXPECT_THAT(page, HasSubstr("data-mark='held-back'"));
    EXPECT_THAT(page, HasSubstr("exit held back until"));
}

// Two hours of a shopper among four beacons, heard every second and reported by discovery every two.
std::vector<TimelineEvent> longRun() {
    const std::string uuid = "F7826DA6-4FA2-4E98-8024-BC5B71E0893E";
    std::vector<TimelineEvent> events;
    TimelineEvent start{};
    start.kind = TimelineEvent::Kind::Visit;
    start.visit = events::MainRegionEntered{uuid, false};
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
            nearby.kind = TimelineEvent::Kind::Visit;
            nearby.visit = events::NearbyDevices{
                {{"dev1", 0, "4.1", static_cast<std::uint64_t>(100 - second / 80), -61}}, {}};
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

// A report is drawn up as the run goes, so what it keeps must not grow with the run: a day of signal, more
// beacons and senders than a page can show, and more lines than a table should hold.
TEST(VisitReport, ADayOfManyBeaconsKeepsItsBoundsAndSaysWhatItLeftOut) {
    const std::string uuid = "F7826DA6-4FA2-4E98-8024-BC5B71E0893E";
    RunReport run;
    TimelineEvent entered{};
    entered.kind = TimelineEvent::Kind::Visit;
    entered.visit = events::MainRegionEntered{uuid, false};
    run.add(entered);
    for (int second = 1; second <= 86'400; ++second) {
        TimelineEvent heard{};
        heard.at = std::chrono::seconds(second);
        heard.kind = TimelineEvent::Kind::Heard;
        // Beacon 1/1 all day, from a new phone every second; 300 others once each in the first minutes.
        heard.signals.push_back({uuid, 1, 1, "phone-" + std::to_string(second), -60 - second % 20, 0});
        if (second <= 300) heard.signals.push_back({uuid, 2, second, "tag", -80, 0});
        run.add(heard);
        if (second % 40 == 0) {
            TimelineEvent line{};
            line.at = heard.at;
            line.text = "status " + std::to_string(second);
            run.add(line);
        }
    }
    const auto picture = run.picture(86'400s);
    ASSERT_EQ(picture.beacons.size(), kMostBeaconRows);
    EXPECT_EQ(picture.beaconsNotDrawn, 301 - kMostBeaconRows);
    const auto& allDay = rowOf(picture, 1);
    EXPECT_EQ(allDay.devices.size(), kDevicesNamed);
    EXPECT_TRUE(allDay.moreDevices);
    ASSERT_EQ(allDay.signal.size(), 1u) << "heard every second: one unbroken line";
    EXPECT_LE(allDay.signal[0].size(), static_cast<std::size_t>(kSignalPoints));
    EXPECT_LT(allDay.signal[0].front().at, 300);
    EXPECT_GT(allDay.signal[0].back().at, 86'100);
    EXPECT_NEAR(allDay.signal[0][10].rssi, -69.5, 0.5);  // the mean of a share of the day
    ASSERT_EQ(allDay.heard.size(), 1u);
    EXPECT_NEAR(allDay.heard[0].second - allDay.heard[0].first, 86'400, 1);

    // 2,160 status lines: the first and last 500 are listed, the rest counted.
    const auto table = run.table();
    EXPECT_THAT(table, HasSubstr(">status 40<"));
    EXPECT_THAT(table, HasSubstr(">status 86400<"));
    EXPECT_THAT(table, Not(HasSubstr(">status 40000<")));
    EXPECT_THAT(table, HasSubstr("\u2026 1160 more lines \u2026"));
    const auto page = htmlReport({"Day", "a day", Date{}}, run, 86'400s, JSON::array());
    EXPECT_THAT(page, HasSubstr("of 301 heard; the first 256 are drawn"));
    EXPECT_THAT(page, HasSubstr("more than 32 devices"));
}

// An upload the server refused is a lost visit: the page must not say it was stored.
TEST(VisitReport, AnUploadTheServerRefusedIsReportedFailed) {
    for (const bool stored : {false, true}) {
        TimelineEvent event{};
        event.kind = TimelineEvent::Kind::Visit;
        event.at = std::chrono::seconds(5);
        events::VisitUploaded upload;
        upload.stored = stored;
        event.visit = upload;
        event.text = describe(*event.visit);
        const std::vector<TimelineEvent> events{event};
        EXPECT_EQ(pictureOf(events, 10s).upload,
                  stored ? VisitPicture::Upload::Succeeded : VisitPicture::Upload::Failed);
        const auto page = htmlReport({"Store", "x", Date{}}, events, 10s, JSON::array());
        EXPECT_THAT(page, HasSubstr(stored ? "<dd class='upload'>uploaded" : "<dd class='upload'>failed"));
    }
}

TEST(VisitReport, TextsItDoesNotExpectAreShownEscapedAndAttachedToNothing) {
    std::vector<TimelineEvent> events;
    const auto add = [&](events::VisitEventData data, int second) {
        TimelineEvent event{};
        event.kind = TimelineEvent::Kind::Visit;
        event.at = std::chrono::seconds(second);
        event.text = describe(data);
        event.visit = std::move(data);
        events.push_back(event);
    };
    // Beacons a host made up itself, with texts the beacon manager never writes.
    add(events::SubRegionEntered{{"U", "1", ""}, false}, 1);
    add(events::SubRegionEntered{{"U", "1", "70000"}, false}, 2);
    add(events::SubRegionLeft{{"U", "x", "1"}}, 4);
    auto content = std::make_shared<Content>();
    content->textRecord = std::make_shared<TextRecord>();
    content->textRecord->name = "<script>alert(1)</script>";
    add(events::ContentHandedOn{{"U", "-1", "1"}, Content::DisplayType::exit, content}, 5);

    const auto picture = pictureOf(events, 10s);
    EXPECT_TRUE(picture.beacons.empty());
    ASSERT_EQ(picture.contents.size(), 1u);
    EXPECT_FALSE(picture.contents[0].beacon);
    EXPECT_EQ(picture.upload, VisitPicture::Upload::None);

    const auto page = htmlReport({"<Store>", "x", Date{}}, events, 10s, JSON::array());
    EXPECT_THAT(page, Not(HasSubstr("<script>alert")));
    EXPECT_THAT(page, HasSubstr("&lt;script&gt;alert(1)&lt;/script&gt;"));
    EXPECT_THAT(page, HasSubstr("the store's region was never entered"));
    EXPECT_THAT(page, HasSubstr("not uploaded"));
}

}  // namespace
}  // namespace pelm::lab
