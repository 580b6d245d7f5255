#include <pelm/api/api_request.hpp>
#include <pelm/api/form_encoding.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include <gtest/gtest.h>

#include "support/test_platform.hpp"

namespace pelm {
namespace {

TEST(FormEncoding, EscapesEverythingButLettersDigitsAndSixMarks) {
    EXPECT_EQ(percentEscape("aZ09-._~/?"), "aZ09-._~/?");
    EXPECT_EQ(percentEscape("a b&c=d+e#f[g]h%"), "a%20b%26c%3Dd%2Be%23f%5Bg%5Dh%25");
    EXPECT_EQ(percentEscape("Käse €"), "K%C3%A4se%20%E2%82%AC");
    EXPECT_EQ(percentEscape(std::string("\0\x7f", 2)), "%00%7F");
}

TEST(FormEncoding, SortsTopLevelKeysAndNestsObjectsAndArrays) {
    const JSON parameters = {
        {"zeta", "last"},
        {"beacon", {{"uuid", "U"}, {"major", "1"}}},
        {"flags", {true, false}},
        {"n", 42},
        {"session_logs", JSON::array({{{"uuid", "A"}, {"major", "1"}}, {{"uuid", "B"}}})},
        {"empty", JSON::array()}};
    EXPECT_EQ(formEncode(parameters),
              "beacon%5Buuid%5D=U&beacon%5Bmajor%5D=1&flags%5B%5D=1&flags%5B%5D=0&n=42&"
              "session_logs%5B%5D%5Buuid%5D=A&session_logs%5B%5D%5Bmajor%5D=1&session_logs%5B%5D%5Buuid%5D=B&"
              "zeta=last");
}

class APIRequestTest : public ::testing::Test {
  protected:
    testing::TestPlatform platform_;
    void SetUp() override { SettingsManager::sharedInstance()->setApiHost("content.example"); }
};

TEST_F(APIRequestTest, GetsCarryTheirParametersInTheQueryInKeyOrder) {
    auto beacon = std::make_shared<Beacon>("F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "1", "2");
    const auto request = APIRequest(APIRequest::ContentByHardware{"T", beacon, "U"}).urlRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->method, "GET");
    EXPECT_EQ(request->url,
              "https://content.example/api/v1/contents/"
              "by_hardware?app_token=T&major=1&minor=2&session_user=U&type=BLE"
              "&uuid=F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
    EXPECT_TRUE(request->headers.empty());
    EXPECT_TRUE(request->body.empty());

    EXPECT_EQ(APIRequest(APIRequest::Status{"a b"}).urlRequest()->url,
              "https://content.example/api/v1/status?app_token=a%20b");
    EXPECT_EQ(APIRequest(APIRequest::ContentById{"T", -42, "U"}).urlRequest()->url,
              "https://content.example/api/v1/contents/-42?app_token=T&session_user=U");
    EXPECT_EQ(APIRequest(APIRequest::AppConfig{"&=+#[]/?"}).urlRequest()->url,
              "https://content.example/api/v1/app_config/by_app_token?app_token=%26%3D%2B%23%5B%5D/?");
}

TEST_F(APIRequestTest, TheHostIsTheOneStoredWhenTheRequestIsBuilt) {
    const APIRequest status(APIRequest::Status{"T"});
    EXPECT_EQ(status.urlRequest()->url, "https://content.example/api/v1/status?app_token=T");
    SettingsManager::sharedInstance()->setApiHost("other.example:8443/");
    EXPECT_EQ(status.urlRequest()->url, "https://other.example:8443/api/v1/status?app_token=T");
    SettingsManager::sharedInstance()->setApiHost("q.example?tenant=7");
    EXPECT_EQ(status.urlRequest()->url, "https://q.example/api/v1/status?tenant=7&app_token=T");
    SettingsManager::sharedInstance()->setApiHost(std::nullopt);
    EXPECT_FALSE(status.urlRequest());
}

TEST_F(APIRequestTest, OnlyAWellFormedHostGetsARequest) {
    const APIRequest status(APIRequest::Status{"T"});
    for (const char* good : {"content.example", "10.0.0.7:8443", "[::1]:8443", "[fe80::1]", "my_host.lan:1",
                             "content.example/", "q.example?tenant=7", "shop.example:65535"}) {
        SettingsManager::sharedInstance()->setApiHost(good);
        EXPECT_TRUE(status.urlRequest()) << good;
    }
    for (const char* bad :
         {"", "https://content.example", "content.example/api", "user:pw@content.example", "content .example",
          "content.example\t", "content.example#top", "content.example:0", "content.example:70000",
          "content.example:", "content.example:+80", "[::1", "[::1]x",
          "b\xC3\xA4"
          "cker.example",
          ":8443", "/", "?a=b"}) {
        SettingsManager::sharedInstance()->setApiHost(bad);
        EXPECT_FALSE(status.urlRequest()) << bad;
        EXPECT_TRUE(APIRequest::hostProblem(bad)) << bad;
    }
    // A pasted URL is named for what it is, wherever its first "/" falls.
    EXPECT_EQ(APIRequest::hostProblem("https://content.example/api"), "it holds a scheme");
    EXPECT_EQ(APIRequest::hostProblem("content.example/api"), "it holds a path");
}

TEST_F(APIRequestTest, SessionUploadIsAFormPostWithNestedRecords) {
    auto session = std::make_shared<Session>();
    session->appVersion = "2.4.1";
    session->startTime = testing::kStart;
    auto first = std::make_shared<SessionLog>("A", "1", "11", testing::kStart);
    auto second = std::make_shared<SessionLog>("B", "1", "12", testing::kStart);
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    const auto request =
        APIRequest(APIRequest::CreateSession{
                       "T", session, "U", std::make_shared<Beacon>("A", "1", "11"), {first, second}})
            .urlRequest();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->method, "POST");
    EXPECT_EQ(request->url, "https://content.example/api/v1/sessions");
    ASSERT_EQ(request->headers.size(), 1u);
    EXPECT_EQ(request->headers[0].second, "application/x-www-form-urlencoded; charset=utf-8");
    EXPECT_EQ(
        request->body,
        "app_token=T&beacon%5Buuid%5D=A&beacon%5Bmajor%5D=1&beacon%5Bminor%5D=11&"
        "session%5Bapp_version%5D=2.4.1&session%5Bstart_time%5D=2016-07-16T17%3A20%3A30.450%2B0000&"
        "session_logs%5B%5D%5Buuid%5D=A&session_logs%5B%5D%5Bmajor%5D=1&session_logs%5B%5D%5Bminor%5D=11&"
        "session_logs%5B%5D%5Bentrance_time%5D=2016-07-16T17%3A20%3A30.450%2B0000&"
        "session_logs%5B%5D%5Buuid%5D=B&session_logs%5B%5D%5Bmajor%5D=1&session_logs%5B%5D%5Bminor%5D=12&"
        "session_logs%5B%5D%5Bentrance_time%5D=2016-07-16T17%3A20%3A30.450%2B0000&session_user=U");
    // No lines, no components.
    const auto empty = APIRequest(APIRequest::CreateSession{
                                      "T", std::make_shared<Session>(), "U", std::make_shared<Beacon>(), {}})
                           .urlRequest();
    EXPECT_EQ(empty->body, "app_token=T&session_user=U");
}

}  // namespace
}  // namespace pelm
