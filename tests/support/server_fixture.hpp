#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "pelm_server/pelm_server.hpp"
#include "support/temp_folder.hpp"
#include "support/test_database.hpp"
#include "support/test_platform.hpp"
#include "support/test_server.hpp"

namespace pelm::testing {

inline constexpr const char* kToken = "test-token-5bX9";
inline constexpr const char* kUuid = "F7826DA6-4FA2-4E98-8024-BC5B71E0893E";

/// One app with two beacons of store 1: (1, 11) with entry and exit content, (1, 12) with entry content only
/// and no cool-down; a second app whose configuration has no vendor key.
inline JSON testSeed() {
    return JSON::parse(R"({
      "apps": [
        {"app_token": "test-token-5bX9", "app_config": {"slc_distance": 5, "min_sdk": "1.0.0", "max_session_time": 3600,
          "default_beacon_uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "kontakt_io_api_key": "kontakt-key"}},
        {"app_token": "no-vendor-key", "app_config": {"default_beacon_uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E"}}
      ],
      "contents": [
        {"app_token": "test-token-5bX9", "display_type": "entry",
         "beacon": {"uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "major": 1, "minor": 11},
         "content": {"id": 1, "active": true, "content_type": "coupon", "display_type": "entry", "cool_down_time": 60,
                     "text_record": {"name": "Cheese week", "text": "Käse -20 %", "language_code": {"code": "de", "name": "Deutsch"}},
                     "extra_info": {"codes": [1, 2]}}},
        {"app_token": "test-token-5bX9", "display_type": "exit",
         "beacon": {"uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "major": 1, "minor": 11},
         "content": {"id": 2, "display_type": "exit", "cool_down_time": 30, "text_record": {"name": "Goodbye"}}},
        {"app_token": "test-token-5bX9", "display_type": "entry",
         "beacon": {"uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "major": 1, "minor": 12},
         "content": {"id": 3, "display_type": "entry", "text_record": {"name": "Fresh bread"}}}
      ]})");
}

/// A pelm-server over HTTPS on a free loopback port with its own throwaway certificate, and a test platform
/// whose transport trusts it.
class ServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server::PelmServer::Options options;
        options.certificateFolder = folder_;
        options.database = testDatabase();
        configure(options);
        server_ = std::make_unique<TestServer>(options);
        server_->store().seed(testSeed());
        server_->start();
        TestPlatformOptions platformOptions;
        platformOptions.caFile = server_->caFile();
        platformOptions.timeout = timeout();
        platform_ = std::make_unique<TestPlatform>(platformOptions);
    }
    void TearDown() override {
        platform_.reset();
        server_->stop();
    }
    virtual std::chrono::milliseconds timeout() const { return std::chrono::seconds(5); }
    /// What a test changes of the server's options before it starts.
    virtual void configure(server::PelmServer::Options&) {}

    /// Runs the main queue until every call in flight has completed.
    void settle() { platform_->loop->runUntilIdle(); }
    std::vector<std::string> lines() const { return platform_->lines(); }

    // Declared first, so it is removed last.
    TempFolder temp_{"pelm-server-test"};
    const std::filesystem::path& folder_ = temp_.path();
    std::unique_ptr<TestServer> server_;
    std::unique_ptr<TestPlatform> platform_;
};

}  // namespace pelm::testing
