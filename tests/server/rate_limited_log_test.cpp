#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pelm_server/rate_limited_log.hpp"

namespace pelm::server {
namespace {

using namespace std::chrono_literals;

TEST(RateLimitedLog, AnOutageWritesOneLineACauseAndIntervalAndCountsTheRest) {
    std::vector<std::string> lines;
    auto now = std::chrono::steady_clock::time_point{} + 1h;
    RateLimitedLog log([&](const std::string& line) { lines.push_back(line); }, 10s, [&] { return now; });

    for (int i = 0; i < 1000; ++i)
        log.write("upload not stored", "upload " + std::to_string(i) + " not stored");
    log.write("request failed", "another cause is not held back by the first");
    now += 9s;
    log.write("upload not stored", "still within the interval");
    ASSERT_EQ(lines, (std::vector<std::string>{"upload 0 not stored",
                                               "another cause is not held back by the first"}));

    now += 1s;  // exactly one interval after the first line
    log.write("upload not stored", "the next interval's first line");
    log.flush();
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "upload 0 not stored", "another cause is not held back by the first",
                         "1000 more lines like \"upload not stored\" held back since the last one",
                         "the next interval's first line"}));

    log.write("upload not stored", "held back");
    log.flush();
    EXPECT_EQ(lines.back(), "1 more line like \"upload not stored\" held back since the last one");
}

}  // namespace
}  // namespace pelm::server
