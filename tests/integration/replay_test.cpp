// Real recordings played through the region engine and the whole library against the embedded server.
#include <gmock/gmock.h>

#include <map>

#include <pelm/model/json_date_transform.hpp>
#include <pelm/platform/ble/recording_reader.hpp>

#include "replay.hpp"

namespace pelm::cli {
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

}  // namespace
}  // namespace pelm::cli
