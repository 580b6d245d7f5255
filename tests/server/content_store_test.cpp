// What the store keeps and answers, the same whichever database is behind it: every test runs on each backend
// of kStoreBackends (tests/support/store_backends.hpp).
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

#include "pelm_server/content_store.hpp"
#include "pelm_server/store_factory.hpp"
#include "support/store_backends.hpp"

namespace pelm::server {
namespace {

class ContentStoreTest : public ::testing::TestWithParam<testing::StoreBackend> {
  protected:
    void SetUp() override {
        if (const auto why = GetParam().unavailable()) GTEST_SKIP() << *why;
        database_ = GetParam().freshDatabase(::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    void TearDown() override {
        if (!database_.empty() && std::filesystem::exists(database_)) std::filesystem::remove(database_);
    }
    /// A store on this test's database; each call opens another on the same one.
    std::unique_ptr<ContentStore> open(
        std::chrono::milliseconds cacheLifetime = ContentStore::kDefaultCacheLifetime) {
        return openContentStore(database_, ContentStore::Open::CreateIfMissing, cacheLifetime);
    }
    std::string database_;
};
INSTANTIATE_TEST_SUITE_P(Backends, ContentStoreTest, ::testing::ValuesIn(testing::kStoreBackends),
                         [](const auto& backend) { return std::string(backend.param.name); });

TEST_P(ContentStoreTest, SeedErrorsNameTheEntryAndChangeNothing) {
    const auto owned = open();
    auto& store = *owned;
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
    // Two contents under one id, even of two apps, would leave one unserved.
    EXPECT_EQ(error(R"({"apps": [{"app_token": "a", "app_config": {}}, {"app_token": "b", "app_config": {}}],
        "contents": [{"app_token": "a", "display_type": "entry", "beacon": {"uuid": "U", "major": 1, "minor": 2},
                      "content": {"id": 7}},
                     {"app_token": "b", "display_type": "exit", "beacon": {"uuid": "U", "major": 1, "minor": 2},
                      "content": {"id": 7}}]})"),
              "contents[1].content.id: 7 is already the id of contents[0]");
}

TEST_P(ContentStoreTest, FindsContentByBeaconRegardlessOfUuidCase) {
    const auto owned = open();
    auto& store = *owned;
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
TEST_P(ContentStoreTest, ConcurrentUploadsAreEachStoredOnceWithTheirOwnLines) {
    constexpr int kThreads = 16, kEach = 150;
    std::vector<std::vector<std::int64_t>> ids(kThreads);
    {
        const auto owned = open();
        auto& store = *owned;
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

    const auto stored = open()->sessions();
    ASSERT_EQ(stored.size(), std::size_t{kThreads * kEach});
    for (const auto& session : stored) {
        const auto user = session["session_user"].get<std::string>();
        EXPECT_EQ(session["session"]["app_version"], user);
        ASSERT_EQ(session["session_logs"].size(), 2u);
        EXPECT_EQ(session["session_logs"][0]["minor"], user);
        EXPECT_EQ(session["session_logs"][1]["minor"], user + "b");
    }
}

// A phone that never heard the answer sends its visit again, perhaps to another server sharing the database:
// it is kept once, under the id of the first, whatever bytes the texts hold.
TEST_P(ContentStoreTest, AnUploadSentAgainIsKeptOnceAndOddTextsAreKept) {
    const auto first = open();
    const auto second = open();
    const std::string odd = std::string("K\xC3\xA4se \xFF\xFE ") + '\0' + " \xF0\x9F\x8D\x9E";
    const JSON session = {{"start_time", "2016-07-16T19:20:30.450+0200"}, {"app_version", odd}};
    const JSON lines = JSON::array({{{"uuid", "A"}, {"major", "1"}, {"minor", "11"}}, {{"minor", 12}}});
    const auto id = first->storeSession("T", "phone", session, {{"uuid", "A"}}, lines);
    EXPECT_EQ(second->storeSession("T", "phone", session, {{"uuid", "A"}}, lines), id);
    EXPECT_NE(first->storeSession("T", "other phone", session, {{"uuid", "A"}}, lines), id);
    const auto stored = second->sessions();
    ASSERT_EQ(stored.size(), 2u);
    EXPECT_EQ(stored[0]["session"]["app_version"], "Käse \uFFFD\uFFFD  \U0001F35E");
    ASSERT_EQ(stored[0]["session_logs"].size(), 2u);
    EXPECT_EQ(stored[0]["session_logs"][0]["minor"], "11");
    EXPECT_EQ(stored[0]["session_logs"][1], JSON::object());  // a number is not a text
}

// Visits that differ in any one field, the lines included, are two visits: each is stored under its own id.
TEST_P(ContentStoreTest, VisitsThatDifferInAnyOneFieldAreEachStored) {
    const auto store = open();
    const JSON session = {{"app_version", "1"},
                          {"sdk_version", "2"},
                          {"operating_system", "Linux"},
                          {"start_time", "2016-07-16T19:20:30.450+0200"},
                          {"end_time", "2016-07-16T19:30:30.450+0200"}};
    const JSON beacon = {{"uuid", "A"}, {"major", "1"}, {"minor", "2"}};
    const JSON line = {
        {"uuid", "A"}, {"major", "1"}, {"minor", "11"}, {"entrance_time", "t1"}, {"exit_time", "t2"}};
    const auto first = store->storeSession("T", "phone", session, beacon, JSON::array({line}));
    std::set<std::int64_t> ids{first};
    const auto differing = [&](const char* what, const std::string& token, const std::string& user,
                               const JSON& s, const JSON& b, const JSON& lines) {
        const auto id = store->storeSession(token, user, s, b, lines);
        EXPECT_TRUE(ids.insert(id).second) << what << " made no difference";
    };
    differing("the token", "U", "phone", session, beacon, JSON::array({line}));
    differing("the user", "T", "other", session, beacon, JSON::array({line}));
    for (const auto& [key, value] : session.items()) {
        auto changed = session;
        changed[key] = value.get<std::string>() + "x";
        differing(key.c_str(), "T", "phone", changed, beacon, JSON::array({line}));
    }
    for (const auto& [key, value] : beacon.items()) {
        auto changed = beacon;
        changed[key] = value.get<std::string>() + "9";
        differing(("beacon " + key).c_str(), "T", "phone", session, changed, JSON::array({line}));
    }
    for (const auto& [key, value] : line.items()) {
        auto changed = line;
        changed[key] = value.get<std::string>() + "9";
        differing(("line " + key).c_str(), "T", "phone", session, beacon, JSON::array({changed}));
    }
    differing("a second line", "T", "phone", session, beacon, JSON::array({line, line}));
    differing("no line", "T", "phone", session, beacon, JSON::array());
    EXPECT_EQ(store->storeSession("T", "phone", session, beacon, JSON::array({line})), first);
}

// Contents changed by other hands (another server's seed, an editor of the database) are served once the
// cache lifetime has passed.
TEST_P(ContentStoreTest, AChangeMadeElsewhereIsServedWithinTheCacheLifetime) {
    const auto serving = open(std::chrono::milliseconds(200));
    const auto editor = open();
    const auto seed = [](int minSdk) {
        return JSON{{"apps", {{{"app_token", "a"}, {"app_config", {{"min_sdk", std::to_string(minSdk)}}}}}}};
    };
    editor->seed(seed(1));
    EXPECT_EQ((*serving->appConfig("a"))["min_sdk"], "1");
    editor->seed(seed(2));
    const auto changed = std::chrono::steady_clock::now();
    while ((*serving->appConfig("a"))["min_sdk"] != "2" &&
           std::chrono::steady_clock::now() - changed < std::chrono::seconds(10)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ((*serving->appConfig("a"))["min_sdk"], "2");
}

}  // namespace
}  // namespace pelm::server
