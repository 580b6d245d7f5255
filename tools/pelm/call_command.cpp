#include <cstdio>
#include <iostream>
#include <limits>

#include <pelm/api/pelm_api_client.hpp>
#include <pelm/model/record_json.hpp>
#include <pelm/platform/proximity_uuid.hpp>

#include "cli.hpp"
#include "pelm_cli/text_numbers.hpp"

namespace pelm::cli {
namespace {

JSON orNull(const auto& record) {
    return record ? toJSON(*record) : JSON();
}

std::optional<std::int64_t> integerArgument(const std::string& text) {
    return wholeNumber(text, std::numeric_limits<long long>::min(), std::numeric_limits<long long>::max());
}

// The beacon's identity as the server expects it, checked before anything is sent.
std::optional<std::string> beaconProblem(const std::string& uuid, const std::string& major,
                                         const std::string& minor) {
    if (!platform::ProximityUUID::parse(uuid))
        return uuid + " is not a UUID (like F7826DA6-4FA2-4E98-8024-BC5B71E0893E)";
    for (const auto& [name, value] : {std::pair{"MAJOR", major}, std::pair{"MINOR", minor}}) {
        if (!wholeNumber(value, 0, 65535)) return std::string(name) + " takes a whole number from 0 to 65535";
    }
    return std::nullopt;
}

// The call and as many words as it takes.
bool wellFormed(const std::vector<std::string>& words) {
    if (words.size() < 2) return false;
    const auto& what = words[1];
    return ((what == "status" || what == "app-config") && words.size() == 2) ||
           (what == "content" && words.size() == 3) || (what == "content-by-hardware" && words.size() == 5);
}

}  // namespace

int callCommand(const Arguments& args) {
    const auto& words = args.positional();
    // The words are checked before the settings, so a typo is named as such even where nothing is set up.
    if (!wellFormed(words)) return kShowUsage;
    if (words[1] == "content" && !integerArgument(words[2])) {
        std::fprintf(stderr, "pelm call: content %s: ID takes a whole number from %lld to %lld\n",
                     words[2].c_str(), std::numeric_limits<long long>::min(),
                     std::numeric_limits<long long>::max());
        return 2;
    }
    if (words[1] == "content-by-hardware") {
        if (const auto problem = beaconProblem(words[2], words[3], words[4])) {
            std::fprintf(stderr, "pelm call: %s\n", problem->c_str());
            return 2;
        }
    }
    installPlatform(args);
    const auto client = PelmAPIClient::make();
    if (!client) {
        std::fprintf(stderr, "pelm call: no token or host stored; run `pelm setup` first\n");
        return 1;
    }
    const auto user = SettingsManager::sharedInstance()->userID();
    std::optional<JSON> result;
    const auto& what = words[1];
    if (what == "status") {
        client->status([&](bool ok, auto status) {
            result = JSON{{"successful", ok}, {"status", orNull(status)}};
        });
    } else if (what == "app-config") {
        client->appConfig([&](bool ok, auto config) {
            result = JSON{{"successful", ok}, {"appConfig", orNull(config)}};
        });
    } else if (what == "content") {
        client->contentById(*integerArgument(words[2]), user, [&](bool ok, auto content) {
            result = JSON{{"succesful", ok}, {"content", orNull(content)}};
        });
    } else {
        auto beacon = std::make_shared<Beacon>(words[2], words[3], words[4]);
        client->contentByHardware(beacon, user, [&](bool ok, auto entry, auto exit) {
            result = JSON{{"successful", ok}, {"entryContent", orNull(entry)}, {"exitContent", orNull(exit)}};
        });
    }
    if (!runUntil([&] { return result.has_value(); })) {
        std::fprintf(stderr, "pelm call: no answer within a minute\n");
        return 1;
    }
    std::cout << jsonText(*result, 2) << "\n";
    if (const auto refusal = tokenRefusal()) std::fprintf(stderr, "pelm call: %s\n", refusal->c_str());
    return result->begin()->get<bool>() ? 0 : 1;
}

}  // namespace pelm::cli
