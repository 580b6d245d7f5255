#include <pelm/platform/linux/stderr_log_sink.hpp>
#include <pelm/sdk/log.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "support/test_platform.hpp"

namespace pelm {
namespace {

using ::testing::ElementsAre;

TEST(Log, ErrorLinesHaveTheTwoTagsAndOneBlank) {
    testing::TestPlatform platform;
    Log::error("No app token set.");
    Log::error("x", "Domain=net Code=-1004");
    Log::error("");
    EXPECT_THAT(platform.lines(),
                ElementsAre("[PELM][ERROR] No app token set.",
                            "[PELM][ERROR] x with error Domain=net Code=-1004", "[PELM][ERROR] "));
}

TEST(Log, MessageIsEvaluatedOnceForErrorsAndNeverForDebug) {
    testing::TestPlatform platform;
    int calls = 0;
    Log::error([&] {
        ++calls;
        return std::string("counted");
    });
    EXPECT_EQ(calls, 1);
    Log::debug([&] {
        ++calls;
        return std::string("never");
    });
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(platform.lines(), ElementsAre("[PELM][ERROR] counted"));
}

TEST(Log, LevelsConvertFromTheirExactRawText) {
    EXPECT_EQ(Log::levelFromRawValue("[ERROR]"), Log::Level::Error);
    EXPECT_EQ(Log::levelFromRawValue("[DEBUG]"), Log::Level::Debug);
    EXPECT_EQ(Log::levelFromRawValue("[error]"), std::nullopt);
    EXPECT_EQ(Log::levelFromRawValue("ERROR"), std::nullopt);
}

TEST(StderrLogSink, WritesOneStampedLineWithTheProcessPrefix) {
    char path[] = "/tmp/pelm-log-XXXXXX";
    const int file = ::mkstemp(path);
    ASSERT_GE(file, 0);
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(file, STDERR_FILENO);
    platform::StderrLogSink("hostapp", false).write("[PELM][ERROR] No api host set.");
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    ::close(file);
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    std::remove(path);
    EXPECT_THAT(text.str(), ::testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3} "
                                                    "hostapp\\[[0-9]+:[0-9]+\\] \\[PELM\\]\\[ERROR\\] "
                                                    "No api host set\\.\n"));
}

}  // namespace
}  // namespace pelm
