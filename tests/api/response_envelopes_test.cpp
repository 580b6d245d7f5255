#include <pelm/api/response_envelopes.hpp>

#include <gtest/gtest.h>

namespace pelm {
namespace {

TEST(ResponseEnvelopes, StatusIsTakenOnlyAsItsExactText) {
    EXPECT_EQ(StatusResponse::fromJSONText(R"({"status":"error"})")->status, APIResponseStatus::Error);
    EXPECT_EQ(StatusResponse::fromJSONText(R"({"status":"successful"})")->status,
              APIResponseStatus::Successful);
    for (const char* body : {R"({"status":"Successful"})", R"({"status":1})", R"({"status":null})", "{}"}) {
        EXPECT_EQ(StatusResponse::fromJSONText(body)->status, std::nullopt) << body;
    }
    const auto status =
        StatusResponse::fromJSONText(R"({"version":"1.0.0","api_version":2,"git_revision":"abc"})");
    EXPECT_EQ(status->version, "1.0.0");
    EXPECT_EQ(status->apiVersion, std::nullopt);
    EXPECT_EQ(status->gitRevision, "abc");
}

TEST(ResponseEnvelopes, PayloadsAreTakenOnlyFromObjects) {
    const auto reply =
        ContentByHardwareResponse::fromJSONText(R"({"content_entry": {}, "content_exit": "x"})");
    ASSERT_TRUE(reply->entryContent);
    EXPECT_EQ(reply->entryContent->id, std::nullopt);
    EXPECT_EQ(reply->exitContent, nullptr);
    const auto swapped =
        ContentByHardwareResponse::fromJSONText(R"({"entry_content": {}, "content_exit": {"id": 4}})");
    EXPECT_EQ(swapped->entryContent, nullptr);
    ASSERT_TRUE(swapped->exitContent);
    EXPECT_EQ(swapped->exitContent->id, 4);
    EXPECT_EQ(AppConfigResponse::fromJSONText(R"({"status":"successful"})")->appConfig, nullptr);
    EXPECT_EQ(ContentByIdResponse::fromJSONText(R"({"content": []})")->content, nullptr);
}

}  // namespace
}  // namespace pelm
