// Real recordings played through the region engine and the whole library against the embedded server.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <sys/stat.h>

#include <fstream>
#include <map>
#include <thread>

#include <pelm/model/content.hpp>
#include <pelm/model/json_date_transform.hpp>
#include <pelm/platform/ble/recording_reader.hpp>

#include <pelm/platform/sim/simulated_store.hpp>

#include "pelm_lab/event_lines.hpp"
#include "pelm_lab/replay.hpp"
#include "pelm_lab/report.hpp"
#include "support/temp_folder.hpp"

namespace pelm::lab {
namespace {

using namespace std::chrono_literals;

const std::string kRecordings = std::string(PELM_TEST_DATA) + "/recordings/";

ReplayResult replay(const std::string& file, std::optional<std::string> scanner = {}) {
    ReplayOptions options;
    options.recording = kRecordings + file;
    options.scanner = std::move(scanner);
    return runReplay(options);
}

TEST(Replay, TheSnoopLogGivesItsSummaryAndAVisit) {
    const auto result = replay("android-hci.btsnoop");
    ASSERT_EQ(result.failure, "");
    EXPECT_EQ(result.summary.line(),
              "412 advertisements (11 iBeacon) from 36 devices over 00:12.8 of recording");
    EXPECT_EQ(result.uuid, "494E5445-4C4C-495F-524F-434B535F4857");
    ASSERT_EQ(result.storedVisits.size(), 1u);
    EXPECT_EQ(result.storedVisits[0]["session_logs"].size(), 2u);
}

TEST(Replay, TheMallWalkIsOneVisitAndTheSameFileGivesTheSameEvents) {
    const auto first = replay("mall-walk.jsonl");
    const auto second = replay("mall-walk.jsonl");
    ASSERT_EQ(first.failure, "");
    EXPECT_EQ(first.summary.line(),
              "1321 advertisements (1321 iBeacon) from 9 devices over 00:41.8 of recording");
    ASSERT_EQ(first.storedVisits.size(), 1u);
    ASSERT_EQ(first.timeline.size(), second.timeline.size());
    for (std::size_t i = 0; i < first.timeline.size(); ++i) {
        EXPECT_EQ(eventJSON(first.timeline[i]), eventJSON(second.timeline[i])) << i;
    }
    for (const auto& event : first.timeline) EXPECT_NE(event.kind, TimelineEvent::Kind::Log) << event.text;
}

// The phone's rule, computed from the file: a visit begins at a sighting after 30 s or more of silence and
// ends 30 s after its last sighting.
std::vector<std::pair<Date, Date>> visitsByTheRule(const std::string& scanner) {
    std::vector<std::pair<Date, Date>> visits;
    auto reader = platform::RecordingReader::open(kRecordings + "rooms-one-beacon.jsonl");
    while (auto heard = reader->next()) {
        if (heard->receiver != scanner) continue;
        if (visits.empty() || heard->at - visits.back().second >= 30s)
            visits.push_back({heard->at, heard->at});
        visits.back().second = heard->at;
    }
    for (auto& visit : visits) visit.second += 30s;
    return visits;
}

TEST(Replay, EachRoomsScannerGivesTheVisitsThePhoneRuleGives) {
    for (const std::string room : {"Room201", "Room202", "Room203", "Room204"}) {
        const auto expected = visitsByTheRule(room);
        const auto result = replay("rooms-one-beacon.jsonl", room);
        ASSERT_EQ(result.failure, "") << room;
        ASSERT_EQ(result.storedVisits.size(), expected.size()) << room;
        for (std::size_t i = 0; i < expected.size(); ++i) {
            const auto& visit = result.storedVisits[i]["session"];
            const auto start = dateFromText(visit["start_time"].get<std::string>());
            const auto end = dateFromText(visit["end_time"].get<std::string>());
            ASSERT_TRUE(start && end);
            // Entry when ranging first finds the beacon, within a ranging period or two of the sighting;
            // exit at the first tick after the 30 s.
            EXPECT_GE(*start, expected[i].first) << room << " visit " << i;
            EXPECT_LE(*start, expected[i].first + 2s) << room << " visit " << i;
            EXPECT_GE(*end, expected[i].second) << room << " visit " << i;
            EXPECT_LE(*end, expected[i].second + 1s) << room << " visit " << i;
        }
    }
}

// A trace line: an iBeacon of the demo UUID (minor given), or a phone's advertisement that is none.
std::string traceLine(std::int64_t millis, const std::string& address, std::optional<std::uint16_t> minor) {
    platform::HeardAdvertisement heard;
    heard.at = Date{std::chrono::milliseconds(millis)};
    heard.address = address;
    heard.rssi = -70;
    if (minor) {
        platform::Scenario::Beacon beacon;
        beacon.uuid = *platform::ProximityUUID::parse("F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
        beacon.major = 1;
        beacon.minor = *minor;
        heard.data = platform::SimulatedStore::advertisingData(beacon);
    } else {
        heard.data = {0x02, 0x01, 0x1A, 0x05, 0xFF, 0x4C, 0x00, 0x10, 0x01};
    }
    return platform::traceLine(heard) + "\n";
}

TEST(Replay, FourRoomsAreListedNamedInTheReportWithTheirVisitsAndATypoListsThem) {
    const auto list = listScanners(kRecordings + "rooms-one-beacon.jsonl");
    std::vector<std::string> lines;
    for (const auto& scanner : list.scanners) lines.push_back(scanner.line());
    EXPECT_THAT(lines, ::testing::ElementsAre("Room201: 453 advertisements over 04:24.6, beacon 0/5",
                                              "Room202: 528 advertisements over 03:55.5, beacon 0/5",
                                              "Room203: 1,005 advertisements over 03:29.9, beacon 0/5",
                                              "Room204: 264 advertisements over 03:46.1, beacon 0/5"));

    std::vector<RoomRun> rooms;
    for (const auto& scanner : list.scanners) {
        const auto result = replay("rooms-one-beacon.jsonl", scanner.name);
        ASSERT_EQ(result.failure, "");
        const auto devices =
            std::count_if(result.timeline.begin(), result.timeline.end(),
                          [](const TimelineEvent& e) { return e.as<events::NearbyDevices>(); });
        EXPECT_GT(devices, 0) << scanner.name << ": the recorded beacon is a nearby device by its address";
        // A recording tells no battery, firmware or power: they stay unknown, never a reading of 0.
        for (const auto& event : result.timeline) {
            if (!event.as<events::NearbyDevices>()) continue;
            const auto device = eventJSON(event)["devices"][0];
            EXPECT_TRUE(device["battery"].is_null() && device["firmware"].is_null() &&
                        device["tx_power"].is_null())
                << device;
            EXPECT_THAT(event.text, ::testing::HasSubstr("battery ?"));
        }
        RunReport run;
        for (const auto& event : result.timeline) run.add(event);
        rooms.push_back({scanner.name, scanner.heard(), result.start, std::move(run),
                         result.timeline.back().at, result.storedVisits});
    }
    const auto page = htmlRoomsReport("rooms-one-beacon.jsonl", "four rooms", rooms);
    EXPECT_THAT(page, ::testing::Not(::testing::HasSubstr("battery low")));
    for (const auto& room : rooms) {
        // The room's heading and summary name it and the recording; its visits are listed as clock times.
        EXPECT_THAT(page, ::testing::HasSubstr("<h2>" + room.name + " \u2014 rooms-one-beacon.jsonl</h2>"));
        for (const auto& visit : room.storedVisits) {
            // Stored in the phone's zone, listed in UTC.
            const auto stored = dateFromText(visit["session"]["start_time"].get<std::string>());
            ASSERT_TRUE(stored);
            const auto start = dateDescription(*stored).substr(11, 8);
            EXPECT_THAT(page, ::testing::HasSubstr(start + "\u2013")) << room.name;
        }
    }
    EXPECT_EQ(replay("rooms-one-beacon.jsonl", "Room2O1").failure,
              "no scanner named Room2O1 in it; its scanners: Room201, Room202, Room203, Room204");
}

TEST(Replay, AFileNamingManyReceiversListsABoundedFewAndCountsTheRest) {
    const testing::TempFolder folder("pelm-replay-scanners");
    const auto file = folder.path() / "many.jsonl";
    {
        std::ofstream out(file);
        for (int i = 0; i < 1000; ++i) {
            platform::HeardAdvertisement heard;
            heard.at = Date{std::chrono::milliseconds(1'680'000'000'000 + i)};
            heard.address = "a";
            heard.data = {0x02, 0x01, 0x06};
            heard.receiver = "scanner-" + std::to_string(i % 600);
            out << platform::traceLine(heard) << "\n";
        }
    }
    const auto list = listScanners(file);
    EXPECT_EQ(list.scanners.size(), kMostScanners);
    // scanner-256 to scanner-599: 344 lines in the first 600, 144 in the last 400.
    EXPECT_EQ(list.otherAdvertisements, 488u);
    EXPECT_THAT(list.names(), ::testing::EndsWith(" and more (488 advertisements from others)"));
}

TEST(Replay, TimesThatJumpCostNothingAndAreNamed) {
    const testing::TempFolder folder("pelm-replay-gap");
    const auto file = folder.path() / "gap.jsonl";
    constexpr std::int64_t k2023 = 1'680'000'000'000;  // 2023-03-28
    constexpr std::int64_t kCentury = 100LL * 365 * 24 * 3600 * 1000;
    {
        std::ofstream out(file);
        out << traceLine(5'000, "beacon-a", 1);  // a clock not yet set
        for (int i = 0; i < 120; ++i) out << traceLine(k2023 + i * 1000, "beacon-a", 1);
        out << traceLine(k2023 + 2 * kCentury, "beacon-a", 1);  // two hundred years later
    }
    ReplayOptions options;
    options.recording = file;
    const auto result = runReplay(options);
    ASSERT_EQ(result.failure, "");
    // The visit in 1970, the one in 2023 and the one two centuries on, each whole.
    EXPECT_EQ(result.storedVisits.size(), 3u);
    EXPECT_THAT(
        result.timeWarnings,
        ::testing::ElementsAre(
            "1 advertisement is dated before 2000, the first at line 1 (1970-01-01 00:00:05 UTC); the "
            "clock passes over such gaps in no time",
            ::testing::StartsWith("1 advertisement is dated more than a day after the recording's "
                                  "median time (2023-03-28 ")));
    EXPECT_THAT(result.timeWarnings[1], ::testing::HasSubstr("the first at line 122 (2223-"));
}

// A clock set back while recording: the summary spans the first time read to the latest, and one warning
// names how many went back and where the first did.
TEST(Replay, TimesThatRunBackwardsAreWarnedOfOnceAndTheLengthStaysTrue) {
    const testing::TempFolder folder("pelm-replay-backwards");
    const auto file = folder.path() / "backwards.jsonl";
    constexpr std::int64_t k2023 = 1'680'000'000'000;
    {
        std::ofstream out(file);
        for (int i = 0; i < 60; ++i) out << traceLine(k2023 + i * 1000, "beacon-a", 1);
        for (int i = 0; i < 30; ++i) out << traceLine(k2023 - 300'000 + i * 1000, "beacon-a", 1);
    }
    ReplayOptions options;
    options.recording = file;
    const auto result = runReplay(options);
    ASSERT_EQ(result.failure, "");
    EXPECT_THAT(result.summary.line(), ::testing::EndsWith("over 00:59.0 of recording"));
    EXPECT_THAT(
        result.timeWarnings,
        ::testing::ElementsAre("30 advertisements are dated before one read earlier, the first at line 61 "
                               "(2023-03-28 10:35:00 UTC); they are played at the time already reached"));
}

// The file is read once, from start to end: a pipe plays as the same file does. The recording is longer
// than what replay reads ahead to choose the UUID, and its second beacon is first heard past that, so its
// contents must reach the embedded server while the replay runs.
TEST(Replay, APipePlaysAsItsFileAndABeaconFirstHeardLateGetsItsContent) {
    const testing::TempFolder folder("pelm-replay-pipe");
    const auto file = folder.path() / "long.jsonl";
    const auto pipe = folder.path() / "long.pipe";
    std::string text;
    constexpr std::int64_t start = 1'680'000'000'000;
    for (int i = 0; i < 80'000; ++i) {
        // 1/1 among phones for 70 s, then 1/2 alone for 100 s: 70,000 lines before 1/2 is heard.
        const bool late = i >= 70'000;
        const bool beacon = late || i % 4 == 0;
        const auto at = start + (late ? 70'000 + (i - 70'000) * 10 : i);
        text += traceLine(at, beacon ? (late ? "b2" : "b1") : "p" + std::to_string(i % 9),
                          beacon ? std::optional<std::uint16_t>(late ? 2 : 1) : std::nullopt);
    }
    std::ofstream(file) << text;
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    std::thread writer([&] { std::ofstream(pipe) << text; });
    ReplayOptions options;
    options.recording = pipe;
    const auto piped = runReplay(options);
    writer.join();
    options.recording = file;
    const auto whole = runReplay(options);

    ASSERT_EQ(piped.failure, "");
    EXPECT_EQ(piped.summary.line(), whole.summary.line());
    EXPECT_EQ(piped.summary.line(),
              "80000 advertisements (27500 iBeacon) from 11 devices over 02:49.9 of recording");
    // The visits as stored, but for the server's own clock.
    const auto visits = [](JSON stored) {
        for (auto& visit : stored) visit.erase("received_at");
        return stored.dump();
    };
    ASSERT_EQ(piped.storedVisits.size(), 1u);
    EXPECT_EQ(visits(piped.storedVisits), visits(whole.storedVisits));
    std::vector<std::string> handedOn;
    for (const auto& event : piped.timeline) {
        if (const auto* content = event.as<events::ContentHandedOn>())
            handedOn.push_back(content->content->textRecord->name.value_or(""));
    }
    EXPECT_THAT(handedOn, ::testing::Contains("Near 1/2"));
    EXPECT_THAT(handedOn, ::testing::Contains("Near 1/1"));
}

// Two UUIDs heard equally often: the first in order of their text is watched, whichever was heard first, in
// one room or over all of them, so that the same recording always gives the same visits.
TEST(Replay, OfUuidsHeardEquallyOftenTheFirstInTextIsChosen) {
    const testing::TempFolder folder("pelm-replay-equals");
    const auto file = folder.path() / "equals.jsonl";
    {
        std::ofstream out(file);
        for (std::int64_t t = 0; t < 20'000; t += 1000) {
            for (const auto& [address, uuid] :
                 {std::pair{"late-in-text", "BBBBBBBBBBBB4BBB8BBBBBBBBBBBBBBB"},
                  std::pair{"early-in-text", "AAAAAAAAAAAA4AAA8AAAAAAAAAAAAAAA"}}) {
                out << R"({"t":)" << 1'680'000'000'000 + t << R"(,"address":")" << address
                    << R"(","rssi":-60,"data":"0201061AFF4C000215)" << uuid
                    << R"(00010001C5","scanner":"Hall"})"
                    << "\n";
            }
        }
    }
    ReplayOptions options;
    options.recording = file;
    const auto result = runReplay(options);
    ASSERT_EQ(result.failure, "");
    EXPECT_EQ(result.uuid, "AAAAAAAA-AAAA-4AAA-8AAA-AAAAAAAAAAAA");
    EXPECT_EQ(result.otherUuids, std::vector<std::string>{"BBBBBBBB-BBBB-4BBB-8BBB-BBBBBBBBBBBB"});
    const auto list = listScanners(file);
    EXPECT_EQ(list.mostHeardUuid(), "AAAAAAAA-AAAA-4AAA-8AAA-AAAAAAAAAAAA");
    ASSERT_EQ(list.scanners.size(), 1u);
    EXPECT_EQ(list.scanners[0].uuidsLine(),
              "UUIDs AAAAAAAA-AAAA-4AAA-8AAA-AAAAAAAAAAAA (20), BBBBBBBB-BBBB-4BBB-8BBB-BBBBBBBBBBBB (20)");
}

// Three rooms, each with a fixed beacon of a UUID of its own heard more there than the app's carried beacon,
// which all three hear: room by room the fixed beacons would win, over the store the app's does.
TEST(Replay, TheAppsUuidIsChosenOnceOverEveryRoomAndTheRunSaysWhichItIgnored) {
    const testing::TempFolder folder("pelm-replay-rooms");
    const auto file = folder.path() / "rooms.jsonl";
    const std::string app = "F7826DA64FA24E988024BC5B71E0893E";
    const std::vector<std::string> fixed{"11111111111141118111111111111111",
                                         "22222222222242228222222222222222",
                                         "33333333333343338333333333333333"};
    {
        std::ofstream out(file);
        const auto line = [&](std::int64_t t, const std::string& address, const std::string& uuid, int room) {
            out << R"({"t":)" << 1'680'000'000'000 + t << R"(,"address":")" << address
                << R"(","rssi":-60,"data":"0201061AFF4C000215)" << uuid << R"(00010001C5","scanner":"Room)"
                << room << "\"}\n";
        };
        for (std::int64_t t = 0; t < 100'000; t += 1000) {
            for (int room = 1; room <= 3; ++room) {
                line(t, "fixed-" + std::to_string(room), fixed[room - 1], room);
                if (t < 60'000) line(t + 500, "carried", app, room);
            }
        }
    }
    const auto list = listScanners(file);
    ASSERT_EQ(list.scanners.size(), 3u);
    EXPECT_EQ(list.scanners[0].uuidsLine(),
              "UUIDs 11111111-1111-4111-8111-111111111111 (100), F7826DA6-4FA2-4E98-8024-BC5B71E0893E (60)");
    ASSERT_EQ(list.mostHeardUuid(), "F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
    EXPECT_EQ(list.otherUuids(*list.mostHeardUuid()).size(), 3u);

    // Each room, replayed with the chosen UUID, gives the carried beacon's visit; left to itself a room
    // would have watched its fixed beacon.
    for (const auto& scanner : list.scanners) {
        ReplayOptions options;
        options.recording = file;
        options.scanner = scanner.name;
        const auto alone = runReplay(options);
        EXPECT_NE(alone.uuid, *list.mostHeardUuid());
        EXPECT_EQ(alone.otherUuids, std::vector<std::string>{"F7826DA6-4FA2-4E98-8024-BC5B71E0893E"});
        options.uuid = list.mostHeardUuid();
        const auto chosen = runReplay(options);
        ASSERT_EQ(chosen.failure, "");
        ASSERT_EQ(chosen.storedVisits.size(), 1u) << scanner.name;
        EXPECT_EQ(chosen.storedVisits[0]["beacon"]["uuid"], "F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
    }
#ifdef PELM_CLI
    // The tool makes the same choice for --scanner all, and says so.
    const auto command = std::string(PELM_CLI) + " replay " + file.string() + " --scanner all 2>&1";
    std::string output;
    if (auto* pipe = ::popen(command.c_str(), "r")) {
        char buffer[4096];
        while (const auto n = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
        EXPECT_EQ(::pclose(pipe), 0) << output;
    }
    EXPECT_THAT(output,
                ::testing::HasSubstr("Watched UUID F7826DA6-4FA2-4E98-8024-BC5B71E0893E (the most "
                                     "heard); ignored 3 others: 11111111-1111-4111-8111-111111111111"));
    EXPECT_THAT(output, ::testing::Not(::testing::HasSubstr("no visit")));
#endif
}

// Memory is measured only where no sanitizer adds its own to every allocation.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define PELM_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PELM_SANITIZED 1
#endif

#if !defined(PELM_SANITIZED) && defined(PELM_CLI)
// Peak memory of `pelm replay FILE --report REPORT`, in KiB, measured by the kernel for that process alone.
long replayPeakKiB(const std::filesystem::path& file, const std::filesystem::path& report, int& exitStatus) {
    std::vector<std::string> args{PELM_CLI, "replay", file.string(), "--report", report.string()};
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    if (posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ) != 0) return -1;
    posix_spawn_file_actions_destroy(&actions);
    rusage usage{};
    ::wait4(child, &exitStatus, 0, &usage);
    return usage.ru_maxrss;
}

// This process's own peak, in KiB.
long ownPeakKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    }
    return 0;
}

// A child started by vfork and exec is charged the peak of the process it came from, so a test program
// that already grew past the bound cannot measure it; ctest runs each test in a process of its own.
bool smallEnoughToMeasure() {
    return ownPeakKiB() < 48 * 1024;
}
#define SKIP_UNLESS_SMALL_ENOUGH_TO_MEASURE()                                             \
    if (!smallEnoughToMeasure())                                                          \
    GTEST_SKIP() << "run by itself (ctest does): this process's peak of " << ownPeakKiB() \
                 << " KiB would be counted as the replay's"

// The replay and its report, which is drawn up as the run goes; the page, for what it should say.
std::string expectReplayWithin64MiB(const std::filesystem::path& file) {
    const auto report = file.parent_path() / "report.html";
    int status = 0;
    const auto peak = replayPeakKiB(file, report, status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_GT(peak, 0);
    EXPECT_LT(peak, 64 * 1024) << "peak RSS " << peak << " KiB";
    std::ifstream in(report);
    return {std::istreambuf_iterator<char>(in), {}};
}

// What a replay keeps is bounded by what is in range at once, not by the recording: every sender here is an
// iBeacon of the app's UUID, so each advertisement takes the library's whole path.
TEST(Replay, AMillionPassingPhonesHeardAsOneIBeaconFitIn64MiB) {
    SKIP_UNLESS_SMALL_ENOUGH_TO_MEASURE();
    const testing::TempFolder folder("pelm-replay-crowd");
    const auto file = folder.path() / "crowd.jsonl";
    {
        // A phone of its own in every advertisement, each sending beacon 1/9, among a store's three beacons.
        std::ofstream out(file);
        constexpr std::int64_t start = 1'680'000'000'000;
        for (int i = 0; i < 1'000'000; ++i) {
            const bool beacon = i % 10 == 0;
            out << traceLine(start + i,
                             beacon ? "beacon-" + std::to_string(i / 10 % 3) : "phone-" + std::to_string(i),
                             static_cast<std::uint16_t>(beacon ? i / 10 % 3 : 9));
        }
    }
    const auto page = expectReplayWithin64MiB(file);
    // 900,000 senders of 1/9 are counted in its row, not listed.
    EXPECT_THAT(page, ::testing::HasSubstr("more than " + std::to_string(kDevicesNamed) + " devices"));
    EXPECT_LT(page.size(), 4u << 20);
}

TEST(Replay, ADayOfThreeBeaconsFitsIn64MiB) {
    SKIP_UNLESS_SMALL_ENOUGH_TO_MEASURE();
    const testing::TempFolder folder("pelm-replay-day");
    const auto file = folder.path() / "day.jsonl";
    {
        std::ofstream out(file);
        constexpr std::int64_t start = 1'680'000'000'000;
        for (std::int64_t tenth = 0; tenth < 24 * 36000; ++tenth) {
            for (std::uint16_t beacon = 0; beacon < 3; ++beacon)
                out << traceLine(start + tenth * 100 + beacon, "beacon-" + std::to_string(beacon), beacon);
        }
    }
    const auto page = expectReplayWithin64MiB(file);
    // The day is drawn, each beacon's signal thinned to its points, on a page that stays small.
    EXPECT_THAT(page, ::testing::HasSubstr("data-seconds='864"));
    EXPECT_THAT(page, ::testing::HasSubstr("data-beacon='1/2'"));
    EXPECT_LT(page.size(), 1u << 20);
}
#endif

}  // namespace
}  // namespace pelm::lab
