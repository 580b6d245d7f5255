#include <gtest/gtest.h>

#include "pelm_server/form_body.hpp"

namespace pelm::server {
namespace {

TEST(FormBody, RebuildsNestedRecordsAndStartsANewLogAtARepeatedMember) {
    const auto form = parseFormBody(
        "app_token=T&beacon%5Buuid%5D=A&session%5Bstart_time%5D=2016-07-16T19%3A20%3A30.450%2B0200&"
        "session_logs%5B%5D%5Buuid%5D=A&session_logs%5B%5D%5Bmajor%5D=1&session_logs%5B%5D%5Buuid%5D=B&"
        "session_user=a+b%20c&flag&=x&broken%zz");
    EXPECT_EQ(form["app_token"], "T");
    EXPECT_EQ(form["beacon"]["uuid"], "A");
    EXPECT_EQ(form["session"]["start_time"], "2016-07-16T19:20:30.450+0200");
    ASSERT_EQ(form["session_logs"].size(), 2u);
    EXPECT_EQ(form["session_logs"][0]["major"], "1");
    EXPECT_EQ(form["session_logs"][1]["uuid"], "B");
    EXPECT_EQ(form["session_user"], "a b c");
    EXPECT_EQ(form["flag"], "");
    EXPECT_EQ(form["broken%zz"], "");
}

}  // namespace
}  // namespace pelm::server
