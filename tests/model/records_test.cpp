#include <pelm/model/app_config.hpp>
#include <pelm/model/beacon.hpp>
#include <pelm/model/content.hpp>
#include <pelm/model/json_text.hpp>
#include <pelm/model/record_json.hpp>
#include <pelm/model/session.hpp>
#include <pelm/model/session_log.hpp>

#include <gmock/gmock.h>

#include "support/test_platform.hpp"

namespace pelm {
namespace {

JSON parse(const char* text) {
    return JSON::parse(text);
}

TEST(Records, EmptyObjectGivesEmptyRecordsThatWriteBackAsEmptyObjects) {
    testing::TestPlatform platform;
    const auto empty = JSON::object();
    EXPECT_EQ(toJSON(*fromJSON<Beacon>(empty)), empty);
    EXPECT_EQ(toJSON(*fromJSON<Session>(empty)), empty);
    EXPECT_EQ(toJSON(*fromJSON<SessionLog>(empty)), empty);
    EXPECT_EQ(AppConfig::fromJSON(empty)->toJSON(), empty);
    EXPECT_EQ(toJSON(*fromJSON<MetaInfo>(empty)), empty);
    // The free dictionary is always written.
    EXPECT_EQ(toJSONText(*fromJSON<Content>(empty)), R"({"extra_info":{}})");
}

TEST(Records, MalformedOrNonObjectInputGivesAnEmptyRecord) {
    for (const char* text : {"", "{", "[]", "\"x\"", "null", "{\"uuid\": \"a\",}", "\xff\xfe"}) {
        const auto beacon = fromJSONText<Beacon>(text);
        ASSERT_TRUE(beacon);
        EXPECT_FALSE(beacon->uuid || beacon->major || beacon->minor) << text;
    }
    // Beyond any depth a reply can reach, refused whole, at any depth, without a crash.
    for (const std::size_t levels : {std::size_t{1024}, std::size_t{1'000'000}}) {
        const std::string deep = std::string(levels, '[') + std::string(levels, ']');
        EXPECT_EQ(fromJSONText<Content>(R"({"id": 7, "extra_info": )" + deep + "}")->id, std::nullopt);
    }
}

TEST(Records, AReplyNestedDeeperThanAnyRealOneStillKeepsItsFields) {
    const std::string deep = std::string(1000, '[') + std::string(1000, ']');
    const auto content = fromJSONText<Content>(R"({"id": 7, "extra_info": {"layers": )" + deep + "}}");
    EXPECT_EQ(content->id, 7);
    EXPECT_EQ(content->extraInfo["layers"].size(), 1u);
}

TEST(Records, TextFieldsTakeOnlyStrings) {
    const auto beacon = fromJSON<Beacon>(parse(R"({"uuid": null, "major": 12, "minor": "", "extra": "x"})"));
    EXPECT_EQ(beacon->uuid, std::nullopt);
    EXPECT_EQ(beacon->major, std::nullopt);
    EXPECT_EQ(beacon->minor, "");
    // An empty text is a value and is written.
    EXPECT_EQ(toJSONText(Beacon("", "", "")), R"({"uuid":"","major":"","minor":""})");
    EXPECT_EQ(toJSON(Beacon("f7826da6-aaaa", "1", "2"))["uuid"], "f7826da6-aaaa");
}

TEST(Records, ContentMapsEveryFieldInDeclarationOrder) {
    const auto content = fromJSON<Content>(parse(R"({
        "extra_info": {"deal": {"codes": [1, "two", null, {"deep": [true]}]}, "n": 1.5},
        "text_record": {"name": "Cheese week", "text": "Käse -20 %", "language_code": {"code": "de", "name": "Deutsch"}},
        "meta_info": {"image_uri": "https://img/1.png", "link_uri": "app://deal/1"},
        "active_time_stop": "20:00", "active_time_start": "not a time",
        "active_date_stop": "2016-12-31", "active_date_start": "whenever",
        "cool_down_time": 300, "delay_time": 0, "display_type": "exit",
        "content_type": "coupon", "active": false, "id": 9007199254740993, "unknown": "ignored"})"));
    EXPECT_EQ(content->id, 9007199254740993);
    EXPECT_EQ(content->active, false);
    EXPECT_EQ(content->displayType, Content::DisplayType::exit);
    EXPECT_EQ(content->coolDownTime, 300);
    EXPECT_EQ(content->activeTimeStart, "not a time");
    ASSERT_TRUE(content->textRecord && content->textRecord->languageCode);
    EXPECT_EQ(content->textRecord->text, "Käse -20 %");
    EXPECT_EQ(content->textRecord->languageCode->name, "Deutsch");
    EXPECT_EQ(content->extraInfo["deal"]["codes"][3]["deep"][0], true);

    EXPECT_EQ(
        toJSONText(*content),
        R"({"id":9007199254740993,"active":false,"content_type":"coupon","display_type":"exit",)"
        R"("delay_time":0,"cool_down_time":300,"active_date_start":"whenever","active_date_stop":"2016-12-31",)"
        R"("active_time_start":"not a time","active_time_stop":"20:00",)"
        R"("meta_info":{"image_uri":"https://img/1.png","link_uri":"app://deal/1"},)"
        R"("text_record":{"name":"Cheese week","text":"Käse -20 %","language_code":{"code":"de","name":"Deutsch"}},)"
        R"("extra_info":{"deal":{"codes":[1,"two",null,{"deep":[true]}]},"n":1.5}})");
}

TEST(Records, ContentFieldsTakeOnlyTheirJsonTypes) {
    const auto content = fromJSON<Content>(parse(R"({
        "id": "7", "active": 1, "display_type": "Exit", "cool_down_time": "300", "delay_time": true,
        "meta_info": null, "text_record": "x", "extra_info": [1, 2], "content_type": 5})"));
    EXPECT_FALSE(content->id || content->active || content->displayType || content->coolDownTime ||
                 content->delayTime || content->metaInfo || content->textRecord || content->contentType);
    EXPECT_EQ(content->extraInfo, JSON::object());
    EXPECT_EQ(fromJSON<Content>(parse(R"({"display_type": 1})"))->displayType, std::nullopt);
    EXPECT_EQ(fromJSON<Content>(parse(R"({"display_type": "entry"})"))->displayType,
              Content::DisplayType::entry);
    // An empty nested object is a nested record with empty fields, not an empty field.
    const auto nested =
        fromJSON<Content>(parse(R"({"meta_info": {}, "text_record": {"language_code": {}}})"));
    ASSERT_TRUE(nested->metaInfo && nested->textRecord && nested->textRecord->languageCode);
    EXPECT_FALSE(nested->metaInfo->imageURI || nested->textRecord->languageCode->code);
}

TEST(Records, IntegerFieldsTakeWholeNumbersInRangeOnly) {
    const auto read = [](const char* number) {
        return fromJSON<Content>(parse((std::string(R"({"cool_down_time": )") + number + "}").c_str()))
            ->coolDownTime;
    };
    EXPECT_EQ(read("0"), 0);
    EXPECT_EQ(read("-60"), -60);
    EXPECT_EQ(read("300.0"), 300);
    EXPECT_EQ(read("9223372036854775807"), INT64_MAX);
    EXPECT_EQ(read("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(read("1.5"), std::nullopt);
    EXPECT_EQ(read("9223372036854775808"), std::nullopt);
    EXPECT_EQ(read("1e300"), std::nullopt);
}

TEST(Records, AppConfigKeepsTextsAsReceived) {
    const auto config = AppConfig::fromJSON(parse(R"({"slc_distance": 3, "min_sdk": "1.0.0",
        "max_session_time": "3600", "default_beacon_uuid": "f7826da6-4fa2-4e98-8024-bc5b71e0893e",
        "kontakt_io_api_key": "abc", "extra": 1})"));
    EXPECT_EQ(config->slcDistance, 3);
    EXPECT_EQ(config->maxSessionTime, std::nullopt);
    EXPECT_EQ(config->defaultBeaconUUID, "f7826da6-4fa2-4e98-8024-bc5b71e0893e");
    EXPECT_EQ(toJSONText(*config), R"({"slc_distance":3,"min_sdk":"1.0.0",)"
                                   R"("default_beacon_uuid":"f7826da6-4fa2-4e98-8024-bc5b71e0893e",)"
                                   R"("kontakt_io_api_key":"abc"})");
}

TEST(Records, VisitRecordsWriteDatesAsTextAndLeaveOutEmptyOnes) {
    testing::TestPlatform platform;
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    const Date entered{std::chrono::milliseconds{1'468'689'630'450}};
    SessionLog line("U", "7", "42", entered);
    EXPECT_EQ(toJSONText(line),
              R"({"uuid":"U","major":"7","minor":"42","entrance_time":"2016-07-16T17:20:30.450+0000"})");
    line.exitTime = entered + std::chrono::seconds(90);
    EXPECT_EQ(toJSON(line)["exit_time"], "2016-07-16T17:22:00.450+0000");

    Session session;
    session.appVersion = "2.4.1";
    session.sdkVersion = "1.0.0";
    session.operatingSystem = "iOS";
    session.startTime = entered;
    EXPECT_EQ(toJSONText(session), R"({"app_version":"2.4.1","sdk_version":"1.0.0","operating_system":"iOS",)"
                                   R"("start_time":"2016-07-16T17:20:30.450+0000"})");

    const auto back = fromJSON<SessionLog>(toJSON(line));
    EXPECT_EQ(back->entranceTime, entered);
    EXPECT_EQ(back->exitTime, line.exitTime);
    // A number or null under a date key gives no date.
    const auto odd = fromJSON<SessionLog>(parse(R"({"entrance_time": 1468689630, "exit_time": null})"));
    EXPECT_FALSE(odd->entranceTime || odd->exitTime);
}

TEST(Records, InvalidUtf8InAFieldIsWrittenNotThrown) {
    const Beacon beacon("\xff\xfe", "1", "2");
    EXPECT_NO_THROW(toJSONText(beacon));
}

TEST(JSONText, AProblemIsPlacedByLineAndCharacterWithoutEchoingTheBytes) {
    EXPECT_EQ(jsonTextProblem(R"({"a": [1, 2]})"), std::nullopt);
    // Column counts characters, so a name with "ä" before the fault does not shift it.
    EXPECT_THAT(jsonTextProblem("{\n  \"n\": \"Bäcker\",\n  \"x\": 1,}\n").value_or(""),
                ::testing::StartsWith("line 3, column 10: syntax error"));
    const auto truncated = jsonTextProblem("{\"a\": [1, 2").value_or("");
    EXPECT_THAT(truncated, ::testing::StartsWith("line 1, column 12: "));
    EXPECT_THAT(truncated, ::testing::HasSubstr("unexpected end of input"));
    EXPECT_THAT(jsonTextProblem("[\"\xff\x01secret\"]").value_or(""),
                ::testing::Not(::testing::HasSubstr("secret")));
    EXPECT_EQ(jsonTextProblem(std::string(1100, '[') + std::string(1100, ']')),
              "it nests deeper than 1023 levels");
}

}  // namespace
}  // namespace pelm
