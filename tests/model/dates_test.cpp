#include <pelm/model/date.hpp>
#include <pelm/model/json_date_transform.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

#include "support/test_platform.hpp"

namespace pelm {
namespace {

using namespace std::chrono;

Date utc(int y, unsigned mo, unsigned d, int h, int mi, int s, int ms = 0) {
    return Date{sys_days{year{y} / mo / d} + hours{h} + minutes{mi} + seconds{s} + milliseconds{ms}};
}

// Runs with a time zone for the life of the object.
class LocalZone {
  public:
    explicit LocalZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) saved_ = old;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~LocalZone() {
        if (saved_) {
            ::setenv("TZ", saved_->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }

  private:
    std::optional<std::string> saved_;
};

TEST(DateText, WrittenInTheLocalZoneWithItsNumericOffset) {
    const auto instant = utc(2016, 7, 16, 17, 20, 30, 450);
    struct Case {
        const char* zone;
        const char* text;
    };
    for (const auto& [zone, text] : {
             Case{"UTC", "2016-07-16T17:20:30.450+0000"},
             Case{"Europe/Berlin", "2016-07-16T19:20:30.450+0200"},
             Case{"America/New_York", "2016-07-16T13:20:30.450-0400"},
             Case{"Asia/Kolkata", "2016-07-16T22:50:30.450+0530"},
             Case{"Asia/Kathmandu", "2016-07-16T23:05:30.450+0545"},
             Case{"America/St_Johns", "2016-07-16T14:50:30.450-0230"},
             Case{"Pacific/Chatham", "2016-07-17T06:05:30.450+1245"},
         }) {
        LocalZone local(zone);
        EXPECT_EQ(dateText(instant), text) << zone;
        EXPECT_EQ(dateFromText(text), instant) << zone;
    }
}

TEST(DateText, FollowsTheOffsetAcrossADaylightSavingChange) {
    LocalZone berlin("Europe/Berlin");
    // Clocks went back from 03:00 CEST to 02:00 CET at 01:00 UTC on 30 October 2016.
    EXPECT_EQ(dateText(utc(2016, 10, 30, 0, 59, 59, 999)), "2016-10-30T02:59:59.999+0200");
    EXPECT_EQ(dateText(utc(2016, 10, 30, 1, 0, 0)), "2016-10-30T02:00:00.000+0100");
    // The repeated wall-clock hour is told apart by its offset.
    EXPECT_EQ(dateFromText("2016-10-30T02:30:00.000+0200"), utc(2016, 10, 30, 0, 30, 0));
    EXPECT_EQ(dateFromText("2016-10-30T02:30:00.000+0100"), utc(2016, 10, 30, 1, 30, 0));
    LocalZone lordHowe("Australia/Lord_Howe");  // a half-hour daylight-saving shift
    EXPECT_EQ(dateText(utc(2016, 7, 1, 0, 0, 0)), "2016-07-01T10:30:00.000+1030");
    EXPECT_EQ(dateText(utc(2016, 1, 1, 0, 0, 0)), "2016-01-01T11:00:00.000+1100");
}

TEST(DateText, TheOffsetInTheTextDecidesTheInstantWhateverTheLocalZone) {
    for (const char* zone : {"UTC", "Asia/Tokyo", "America/Los_Angeles"}) {
        LocalZone local(zone);
        EXPECT_EQ(dateFromText("2016-07-16T19:20:30.450+0200"), utc(2016, 7, 16, 17, 20, 30, 450)) << zone;
        EXPECT_EQ(dateFromText("2016-07-16T12:20:30.450-0500"), utc(2016, 7, 16, 17, 20, 30, 450)) << zone;
    }
}

TEST(DateText, MillisecondRoundTripIsExactAndSubMillisecondsAreDropped) {
    LocalZone local("Asia/Kathmandu");
    const auto whole = utc(2020, 2, 29, 23, 59, 59);
    EXPECT_EQ(dateText(whole), "2020-03-01T05:44:59.000+0545");
    for (const auto instant : {utc(1999, 12, 31, 23, 59, 59, 999), utc(1970, 1, 1, 0, 0, 0, 1),
                               utc(1969, 12, 31, 23, 59, 59, 7), utc(2038, 1, 19, 3, 14, 8, 500)}) {
        EXPECT_EQ(dateFromText(dateText(instant)), instant);
    }
    const auto fine = utc(2016, 7, 16, 17, 20, 30, 450) + microseconds{999};
    EXPECT_EQ(dateFromText(dateText(fine)), utc(2016, 7, 16, 17, 20, 30, 450));
    // Before 1970 the millisecond part still counts forward within its second.
    LocalZone utcZone("UTC");
    EXPECT_EQ(dateText(utc(1969, 12, 31, 23, 59, 59, 7)), "1969-12-31T23:59:59.007+0000");
}

TEST(DateText, ReadingIsStrict) {
    for (const char* text :
         {"", "2016-07-16T19:20:30+0200", "2016-07-16T19:20:30.450", "2016-07-16T19:20:30.450Z",
          "2016-07-16T19:20:30.450+02:00", "2016-07-16 19:20:30.450+0200", "2016-07-16T19:20:30.45+02000",
          "2016-13-16T19:20:30.450+0200", "2016-02-30T19:20:30.450+0200", "2016-07-16T24:00:00.000+0200",
          "2016-07-16T19:60:30.450+0200", "2016-07-16T19:20:30.450+0260", "２016-07-16T19:20:30.450+0200",
          " 2016-07-16T19:20:30.450+0200", "2016-07-16T19:20:30.450+0200 "}) {
        EXPECT_EQ(dateFromText(text), std::nullopt) << text;
    }
    EXPECT_EQ(dateFromText("2015-02-29T00:00:00.000+0000"), std::nullopt);
    EXPECT_EQ(dateFromText("2016-02-29T00:00:00.000+0000"), utc(2016, 2, 29, 0, 0, 0));
    EXPECT_EQ(dateFromText("2016-02-29T00:00:00.000-2359"), utc(2016, 2, 29, 23, 59, 0));
}

TEST(DateText, EveryYearTheTextCanWriteIsThatInstantBothWays) {
    LocalZone utcZone("UTC");
    EXPECT_EQ(dateFromText("3000-01-01T00:00:00.000+0000"), Date{sys_days{year{3000} / 1 / 1}});
    for (const int y : {1, 2, 999, 1492, 1677, 1969, 2262, 2263, 3000, 9999}) {
        const auto instant = Date{sys_days{year{y} / 6 / 30}} + hours{13} + milliseconds{250};
        const auto text = dateText(instant);
        EXPECT_EQ(text.substr(0, 4),
                  (y < 1000 ? std::string(4 - std::to_string(y).size(), '0') : "") + std::to_string(y));
        EXPECT_EQ(dateFromText(text), instant) << text;
    }
    EXPECT_EQ(dateFromText("0001-01-01T00:00:00.000+0000"), kEarliestDate);
    EXPECT_EQ(dateText(kLatestDate), "9999-12-31T23:59:59.999+0000");
    // A text beyond the last instant names it, and reads back to itself in a zone east of UTC, where the
    // last instant's wall time is already in year 10000.
    const auto beyond = dateFromText("9999-12-31T23:59:59.999-2359");
    ASSERT_TRUE(beyond);
    EXPECT_EQ(dateFromText("0000-01-01T00:00:00.000+2359"), kEarliestDate);
    LocalZone kathmandu("Asia/Kathmandu");
    EXPECT_EQ(dateText(*beyond), "9999-12-31T23:59:59.999+0000");
    EXPECT_EQ(dateFromText(dateText(*beyond)), beyond);
}

TEST(JSONDateTransform, StringsAlwaysGiveADateOtherTypesNone) {
    testing::TestPlatform platform;
    const JSONDateTransform transform;
    const JSON good = "2016-07-16T19:20:30.450+0200", bad = "yesterday", number = 1468689630, null;
    EXPECT_EQ(transform.transformFromJSON(&good), utc(2016, 7, 16, 17, 20, 30, 450));
    // A text that is not a date stands for the moment it was read.
    platform.loop->advance(hours{24 * 365});
    EXPECT_EQ(transform.transformFromJSON(&bad), testing::kStart + hours{24 * 365});
    EXPECT_EQ(transform.transformFromJSON(&number), std::nullopt);
    EXPECT_EQ(transform.transformFromJSON(&null), std::nullopt);
    EXPECT_EQ(transform.transformFromJSON(nullptr), std::nullopt);
    EXPECT_EQ(transform.transformToJSON(std::nullopt), std::nullopt);
}

TEST(DateArithmetic, AddingSecondsSaturatesAtTheEndsOfTheClock) {
    const auto a = utc(2026, 11, 23, 9, 0, 0);
    // 10^12 s is about 31,700 years: beyond the years a date text can name, either way.
    EXPECT_EQ(dateByAddingSeconds(a, 1'000'000'000'000LL), kLatestDate);
    EXPECT_EQ(dateByAddingSeconds(a, -1'000'000'000'000LL), kEarliestDate);
    EXPECT_EQ(dateByAddingSeconds(a, std::numeric_limits<long long>::max()), kLatestDate);
    EXPECT_EQ(dateByAddingSeconds(a, std::numeric_limits<long long>::min()), kEarliestDate);
    // "Never again" is a real instant, and the same one once written and read back.
    const auto never = dateByAddingSeconds(a, 9'999'999'999LL);
    EXPECT_EQ(never, a + seconds{9'999'999'999LL});
    EXPECT_EQ(dateFromText(dateText(never)), floor<milliseconds>(never));
    EXPECT_EQ(dateDescription(Date::max()).substr(0, 5), "9999-");
    EXPECT_EQ(dateByAddingSeconds(a, 3600), a + hours{1});
}

TEST(DateDescription, IsUtcToTheSecond) {
    LocalZone local("Asia/Kolkata");
    EXPECT_EQ(dateDescription(utc(2016, 7, 16, 17, 20, 30, 999)), "2016-07-16 17:20:30 +0000");
}

}  // namespace
}  // namespace pelm
