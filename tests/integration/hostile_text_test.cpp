// Every public entry point that takes text, given text that is not UTF-8, no text, and a megabyte of text:
// nothing throws, every call completes exactly once, and a refusal says so in one line.
#include <pelm/api/pelm_api_client.hpp>
#include <pelm/model/json_text.hpp>
#include <pelm/model/record_json.hpp>
#include <pelm/pelm_sdk.hpp>
#include <pelm/platform/proximity_uuid.hpp>
#include <pelm/sdk/log.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include <gmock/gmock.h>

#include "support/server_fixture.hpp"

namespace pelm {
namespace {

using ::testing::ElementsAre;

const std::vector<std::string>& hostileTexts() {
    static const std::vector<std::string> texts{"\xFF\xFE not UTF-8 \xC3", "", std::string(1 << 20, 'x')};
    return texts;
}

class HostileTextTest : public testing::ServerTest {
  protected:
    // Counts completions; each call below must complete exactly once.
    int completions = 0;
    std::vector<bool> outcomes;
    void completed(bool ok) {
        ++completions;
        outcomes.push_back(ok);
    }
};

TEST_F(HostileTextTest, SetAppTokenRefusesWhatItCannotStoreAndCompletesOnce) {
    PelmSDK::setAppToken("\xFF", server_->host(), [&](bool ok) { completed(ok); });
    PelmSDK::setAppToken(testing::kToken, "local\xC3host", [&](bool ok) { completed(ok); });
    settle();
    EXPECT_THAT(outcomes, ElementsAre(false, false));
    EXPECT_EQ(SettingsManager::sharedInstance()->appToken(), std::nullopt);
    EXPECT_THAT(lines(), ElementsAre("[PELM][ERROR] The app token and api host must be UTF-8 text; nothing "
                                     "was stored.",
                                     "[PELM][ERROR] The app token and api host must be UTF-8 text; nothing "
                                     "was stored."));
    EXPECT_TRUE(server_->requests().empty());

    for (const auto& text : hostileTexts()) {
        PelmSDK::setAppToken(text, server_->host(), [&](bool ok) { completed(ok); });
        PelmSDK::setAppToken(testing::kToken, text, [&](bool ok) { completed(ok); });
        PelmSDK::setupGoogleAnalytics(text);
        settle();
    }
    EXPECT_EQ(completions, 8);
    EXPECT_THAT(outcomes, ::testing::Each(false));
}

TEST_F(HostileTextTest, EveryServerCallCompletesOnceWhateverItsTexts) {
    SettingsManager::sharedInstance()->setApiHost(server_->host());
    for (const auto& text : hostileTexts()) {
        for (const auto& token : {text, std::string(testing::kToken)}) {
            const PelmAPIClient client(token, server_->host());
            client.status([&](bool ok, auto) { completed(ok); });
            client.appConfig([&](bool ok, auto) { completed(ok); });
            client.contentById(1, text, [&](bool ok, auto) { completed(ok); });
            client.contentByHardware(std::make_shared<Beacon>(text, text, text), text,
                                     [&](bool ok, auto, auto) { completed(ok); });
            auto session = std::make_shared<Session>();
            session->appVersion = text;
            client.createSession(session, text, std::make_shared<Beacon>(text, "1", text),
                                 {std::make_shared<SessionLog>(text, text, text, testing::kStart)},
                                 [&](bool ok) { completed(ok); });
            settle();
        }
    }
    EXPECT_EQ(completions, 3 * 2 * 5);
    // A megabyte of token never reaches the log, even in an error text that carried it.
    for (const auto& line : lines()) EXPECT_LT(line.size(), 4096u) << line.substr(0, 200);
    // The server stored what arrived, and reading it back as JSON does not throw either.
    const auto stored = jsonText(server_->store().sessions(), 2);
    EXPECT_FALSE(stored.empty());
}

TEST(HostileText, RecordsDatesUuidsAndTheLogTakeAnyBytes) {
    testing::TestPlatform platform;
    for (const auto& text : hostileTexts()) {
        auto content = fromJSONText<Content>(text);
        content->contentType = text;
        content->textRecord = std::make_shared<TextRecord>();
        content->textRecord->name = text;
        EXPECT_NO_THROW(toJSONText(*content));
        EXPECT_NO_THROW(toJSONText(Beacon(text, text, text)));
        EXPECT_NO_THROW(toJSONText(SessionLog(text, text, text, testing::kStart)));
        EXPECT_EQ(dateFromText(text), std::nullopt);
        EXPECT_EQ(platform::ProximityUUID::parse(text), std::nullopt);
        EXPECT_TRUE(APIRequest::hostProblem(text));
        Log::error(text);
        SettingsManager::sharedInstance()->setAppToken(text);
        EXPECT_EQ(SettingsManager::sharedInstance()->appToken(), text);
    }
    EXPECT_EQ(platform.lines().size(), 3u);
}

}  // namespace
}  // namespace pelm
