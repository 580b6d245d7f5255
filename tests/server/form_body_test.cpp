#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <thread>
#include <vector>

#include "pelm_server/content_store.hpp"
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

TEST(ContentStore, SeedErrorsNameTheEntryAndChangeNothing) {
    ContentStore store(":memory:");
    const auto bad = JSON::parse(R"({"apps": [{"app_token": "a", "app_config": {}}],
        "contents": [{"app_token": "a", "display_type": "sideways", "beacon": {"uuid": "U", "major": 1, "minor": 2},
                      "content": {"id": 1}}]})");
    try {
        store.seed(bad);
        FAIL() << "a bad display type was accepted";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "contents[0]: \"display_type\" must be \"entry\" or \"exit\"");
    }
    EXPECT_EQ(store.appConfig("a"), std::nullopt);  // the whole seed was rolled back
    EXPECT_THROW(store.seed(JSON::parse(R"({"apps": [{"app_token": 5}]})")), std::invalid_argument);

    // What a hand-written seed gets wrong is said, not skipped: no apps, a misspelt key, a stray token.
    const auto error = [&](const char* text) {
        try {
            store.seed(JSON::parse(text));
        } catch (const std::invalid_argument& e) {
            return std::string(e.what());
        }
        return std::string("accepted");
    };
    EXPECT_EQ(error(R"({"contents": []})"), "the seed has no \"apps\"");
    EXPECT_EQ(error(R"({"apps": [{"app_token": "a", "app_config": {}}], "content": []})"),
              "content: unknown key; did you mean contents?");
    EXPECT_EQ(error(R"({"apps": [{"app_token": "a", "app_config": {}}],
        "contents": [{"app_token": "b", "display_type": "entry", "beacon": {"uuid": "U", "major": 1, "minor": 2},
                      "content": {"id": 1}}]})"),
              "contents[0].app_token: no app of the seed has the token \"b\"");
    // Major and minor are numbers, as in a scenario; the text the wire uses is refused by name.
    EXPECT_EQ(error(R"({"apps": [{"app_token": "a", "app_config": {}}],
        "contents": [{"app_token": "a", "display_type": "entry", "beacon": {"uuid": "U", "major": "1", "minor": 2},
                      "content": {"id": 1}}]})"),
              "contents[0].beacon.major: must be a whole number from 0 to 65535");
    EXPECT_EQ(error(R"({"apps": [{"app_token": "a", "app_config": {}}],
        "contents": [{"app_token": "a", "display_type": "entry", "beacon": {"uuid": "U", "major": 1, "minor": 65536},
                      "content": {"id": 1}}]})"),
              "contents[0].beacon.minor: must be a whole number from 0 to 65535");
}

TEST(ContentStore, FindsContentByBeaconRegardlessOfUuidCase) {
    ContentStore store(":memory:");
    store.seed(JSON::parse(R"({"apps": [{"app_token": "a", "app_config": {}}],
        "contents": [{"app_token": "a", "display_type": "entry", "beacon": {"uuid": "f7826da6-aaaa", "major": 1, "minor": 2},
                      "content": {"id": 7, "cool_down_time": 60}}]})"));
    const auto found = store.contentForBeacon("a", "F7826DA6-AAAA", "1", "2", "entry");
    ASSERT_TRUE(found);
    EXPECT_EQ((*found)["id"], 7);
    EXPECT_FALSE(store.contentForBeacon("a", "F7826DA6-AAAA", "1", "2", "exit"));
    EXPECT_FALSE(store.contentForBeacon("b", "F7826DA6-AAAA", "1", "2", "entry"));
    // What was looked up before a new seed is not what is answered after it.
    store.seed(JSON::parse(R"({"apps": [{"app_token": "a", "app_config": {"min_sdk": "2"}}],
        "contents": [{"app_token": "a", "display_type": "exit", "beacon": {"uuid": "F7826DA6-AAAA", "major": 1, "minor": 2},
                      "content": {"id": 8}}]})"));
    EXPECT_EQ((*store.appConfig("a"))["min_sdk"], "2");
    ASSERT_TRUE(store.contentForBeacon("a", "f7826da6-aaaa", "1", "2", "exit"));
    EXPECT_EQ((*store.contentForBeacon("a", "f7826da6-aaaa", "1", "2", "exit"))["id"], 8);
}

// Uploads arriving together are written together: each is stored once, with its own lines, under its own id,
// and all of them are in the file once the store is closed.
TEST(ContentStore, ConcurrentUploadsAreEachStoredOnceWithTheirOwnLines) {
    const auto path = std::filesystem::path(::testing::TempDir()) / "concurrent-uploads.db";
    std::filesystem::remove(path);
    constexpr int kThreads = 16, kEach = 150;
    std::vector<std::vector<std::int64_t>> ids(kThreads);
    {
        ContentStore store(path.string());
        std::vector<std::thread> phones;
        for (int phone = 0; phone < kThreads; ++phone) {
            phones.emplace_back([&, phone] {
                for (int visit = 0; visit < kEach; ++visit) {
                    const auto user = std::to_string(phone) + "/" + std::to_string(visit);
                    const JSON lines = JSON::array({{{"minor", user}}, {{"minor", user + "b"}}});
                    ids[phone].push_back(store.storeSession("T", user, {{"app_version", user}}, {}, lines));
                }
            });
        }
        for (auto& phone : phones) phone.join();
    }
    std::set<std::int64_t> distinct;
    for (const auto& each : ids) distinct.insert(each.begin(), each.end());
    EXPECT_EQ(distinct.size(), std::size_t{kThreads * kEach});

    const auto stored = ContentStore(path.string()).sessions();
    ASSERT_EQ(stored.size(), std::size_t{kThreads * kEach});
    for (const auto& session : stored) {
        const auto user = session["session_user"].get<std::string>();
        EXPECT_EQ(session["session"]["app_version"], user);
        ASSERT_EQ(session["session_logs"].size(), 2u);
        EXPECT_EQ(session["session_logs"][0]["minor"], user);
        EXPECT_EQ(session["session_logs"][1]["minor"], user + "b");
    }
    std::filesystem::remove(path);
}

}  // namespace
}  // namespace pelm::server
