// What each endpoint answers, apart from any connection: the refusals a phone acts on (401: check the token,
// 422: the upload is wrong, 503 with Retry-After: keep the visit and send it again).
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "pelm_server/api_routes.hpp"
#include "pelm_server/store_factory.hpp"

namespace pelm::server {
namespace {

constexpr const char* kBeacon = "uuid=F7826DA6-AAAA&major=1&minor=2&type=BLE";

class ApiRoutesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::remove(file_);
        store_ = openContentStore(file_.string());
        store_->seed(JSON::parse(R"({"apps": [{"app_token": "known", "app_config": {}}],
            "contents": [{"app_token": "known", "display_type": "entry",
                          "beacon": {"uuid": "F7826DA6-AAAA", "major": 1, "minor": 2}, "content": {"id": 7}}]})"));
        routes_.emplace(*store_,
                        [this](const std::string&, const std::string& line) { log_.push_back(line); });
    }
    void TearDown() override {
        routes_.reset();
        store_.reset();
        std::filesystem::remove(file_);
    }
    /// Takes tables away under the server's feet, as another hand on the database might.
    void dropTables(std::initializer_list<const char*> tables) const {
        sqlite3* other = nullptr;
        ASSERT_EQ(sqlite3_open(file_.c_str(), &other), SQLITE_OK);
        for (const char* table : tables) {
            EXPECT_EQ(
                sqlite3_exec(other, (std::string("DROP TABLE ") + table).c_str(), nullptr, nullptr, nullptr),
                SQLITE_OK);
        }
        sqlite3_close(other);
    }
    Reply get(const std::string& target) { return routes_->answer("GET", "/api/v1" + target, {}); }
    Reply post(const std::string& body) { return routes_->answer("POST", "/api/v1/sessions", body); }

    // A file of each test's own: ctest runs tests side by side.
    std::filesystem::path file_ =
        std::filesystem::path(::testing::TempDir()) / ("api-routes-" + std::to_string(::getpid()) + ".db");
    std::unique_ptr<ContentStore> store_;
    std::vector<std::string> log_;
    std::optional<ApiRoutes> routes_;
};

TEST_F(ApiRoutesTest, AnUnknownTokenIsRefusedOnEveryRouteEvenForAKnownBeacon) {
    ASSERT_EQ(get(std::string("/contents/by_hardware?app_token=known&") + kBeacon).status, 200);
    for (const auto& target :
         {std::string("/contents/by_hardware?app_token=other&") + kBeacon,
          std::string("/contents/7?app_token=other"), std::string("/app_config/by_app_token?app_token=other"),
          std::string("/status?app_token=other")}) {
        const auto answer = get(target);
        EXPECT_EQ(answer.status, 401) << target;
        EXPECT_NE(answer.text().find("Unknown app token"), std::string::npos) << target;
    }
    EXPECT_EQ(post("app_token=other&session_user=u&session%5Bstart_time%5D=x").status, 401);
}

// Digits past what a number holds name no content, not the content whose id the number started as.
TEST_F(ApiRoutesTest, AContentIdTooLargeForANumberIsNoContent) {
    store_->seed(JSON::parse(R"({"apps": [{"app_token": "known", "app_config": {}}],
        "contents": [{"app_token": "known", "display_type": "exit",
                      "beacon": {"uuid": "F7826DA6-AAAA", "major": 1, "minor": 3}, "content": {"id": 0}}]})"));
    ASSERT_EQ(get("/contents/0?app_token=known").status, 200);
    const auto answer = get("/contents/99999999999999999999?app_token=known");
    EXPECT_EQ(answer.status, 404);
    EXPECT_NE(answer.text().find("No such content"), std::string::npos) << answer.text();
}

TEST_F(ApiRoutesTest, AnUploadWhoseSessionIsNoRecordIsRefusedAndNothingStored) {
    for (const auto& body : {std::string("app_token=known&session_user=u"),
                             std::string("app_token=known&session_user=u&session=just%20text"),
                             std::string("app_token=known&session_user=u&session%5B%5D=a")}) {
        const auto answer = post(body);
        EXPECT_EQ(answer.status, 422) << body;
        EXPECT_NE(answer.text().find("The upload has no session"), std::string::npos) << body;
    }
    EXPECT_TRUE(store_->sessions().empty());
    EXPECT_EQ(post("app_token=known&session_user=u&session%5Bstart_time%5D=x").status, 201);
    EXPECT_EQ(store_->sessions().size(), 1u);
}

// While the database is away, the lookups a phone made before are answered from memory, at once: the server's
// event loop answers them itself instead of handing them to a thread that would wait on the database.
TEST_F(ApiRoutesTest, ThroughAnOutageWhatWasReadBeforeIsAnsweredFromMemory) {
    routes_.reset();
    store_ =
        openContentStore(file_.string(), ContentStore::Open::CreateIfMissing, std::chrono::milliseconds(20));
    routes_.emplace(*store_, [this](const std::string&, const std::string& line) { log_.push_back(line); });
    const auto lookup = std::string("/api/v1/contents/by_hardware?app_token=known&") + kBeacon;
    ASSERT_EQ(routes_->answer("GET", lookup, {}).status, 200);
    dropTables({"apps", "contents"});
    std::this_thread::sleep_for(std::chrono::milliseconds(40));  // past the cache's lifetime: stale now

    EXPECT_EQ(routes_->answer("GET", lookup, {}).status, 200);  // the database fails; the old answer stands
    ASSERT_TRUE(store_->outage());
    const auto fromMemory = routes_->answerFromMemory("GET", lookup);
    ASSERT_TRUE(fromMemory) << "the loop would have handed the lookup to a thread that waits on the database";
    EXPECT_EQ(fromMemory->status, 200);
    EXPECT_NE(fromMemory->text().find("\"id\":7"), std::string::npos) << fromMemory->text();
}

// A lookup's answer is kept whole for the event loop, but never longer than the data it was made of: an
// answer made late from data the store had kept for a while goes when that data would, not a lifetime after.
TEST_F(ApiRoutesTest, AKeptAnswerLastsNoLongerThanTheDataItWasMadeOf) {
    routes_.reset();
    const std::chrono::milliseconds lifetime(400);
    store_ = openContentStore(file_.string(), ContentStore::Open::CreateIfMissing, lifetime);
    routes_.emplace(
        *store_, [this](const std::string&, const std::string& line) { log_.push_back(line); }, lifetime);
    const auto lookup = std::string("/api/v1/contents/by_hardware?app_token=known&") + kBeacon;
    // The same lookup, its parameters in another order: another answer, the same data.
    const auto reordered = std::string("/api/v1/contents/by_hardware?") + kBeacon + "&app_token=known";
    EXPECT_FALSE(routes_->answerFromMemory("GET", lookup)) << "nothing was asked yet";
    ASSERT_EQ(routes_->answer("GET", lookup, {}).status, 200);
    EXPECT_TRUE(routes_->answerFromMemory("GET", lookup));
    EXPECT_FALSE(routes_->answerFromMemory("POST", lookup));

    std::this_thread::sleep_for(lifetime * 6 / 10);
    ASSERT_EQ(routes_->answer("GET", reordered, {}).status, 200);  // from the store's kept data
    ASSERT_TRUE(routes_->answerFromMemory("GET", reordered));
    std::this_thread::sleep_for(lifetime * 6 / 10);
    EXPECT_FALSE(routes_->answerFromMemory("GET", reordered)) << "served past the lifetime of its data";
    EXPECT_FALSE(routes_->answerFromMemory("GET", lookup));
}

// A seed through the server's store is served at once: what was kept of the data it replaced is not.
TEST_F(ApiRoutesTest, ASeedReplacesTheKeptAnswersAtOnce) {
    const auto lookup = std::string("/api/v1/contents/by_hardware?app_token=known&") + kBeacon;
    ASSERT_NE(routes_->answer("GET", lookup, {}).text().find("\"id\":7"), std::string::npos);
    ASSERT_TRUE(routes_->answerFromMemory("GET", lookup));
    store_->seed(JSON::parse(R"({"apps": [{"app_token": "known", "app_config": {}}],
        "contents": [{"app_token": "known", "display_type": "entry",
                      "beacon": {"uuid": "F7826DA6-AAAA", "major": 1, "minor": 2},
                      "content": {"id": 7, "name": "renewed"}}]})"));
    EXPECT_FALSE(routes_->answerFromMemory("GET", lookup));
    EXPECT_NE(routes_->answer("GET", lookup, {}).text().find("renewed"), std::string::npos);
}

// The database refuses the write (here: its table was dropped under the server's feet). The phone must hear
// "not now", with when to try again, not an error that makes it drop the visit.
TEST_F(ApiRoutesTest, AnUploadTheDatabaseDoesNotTakeIsAnswered503WithRetryAfter) {
    dropTables({"sessions"});

    const auto answer = post("app_token=known&session_user=u&session%5Bstart_time%5D=x");
    EXPECT_EQ(answer.status, 503);
    EXPECT_EQ(answer.retryAfter, ApiRoutes::kRetryAfterSeconds);
    ASSERT_EQ(log_.size(), 1u);
    EXPECT_NE(log_[0].find("not stored"), std::string::npos) << log_[0];
}

}  // namespace
}  // namespace pelm::server
