#include <cstdio>

#include <pelm/api/api_request.hpp>
#include <pelm/model/json_text.hpp>
#include <pelm/pelm_sdk.hpp>

#include "cli.hpp"

namespace pelm::cli {

int setupCommand(const Arguments& args) {
    const auto token = args.option("token");
    const auto host = args.option("host");
    if (!token || !host) {
        std::fprintf(stderr, "pelm setup: --token and --host are required\n");
        return 2;
    }
    if (const auto problem = hostArgumentProblem(args)) {
        std::fprintf(stderr, "pelm setup: %s\n", problem->c_str());
        return 2;
    }
    // Neither could be stored or sent as given; the library would refuse them with a log line.
    if (!isValidUTF8(*token) || !isValidUTF8(*host)) {
        std::fprintf(stderr, "pelm setup: --%s is not UTF-8 text; nothing was stored\n",
                     isValidUTF8(*token) ? "host" : "token");
        return 2;
    }
    if (const auto ca = args.option("ca")) {
        if (const auto problem = rememberCA(args, *ca)) {
            std::fprintf(stderr, "pelm setup: %s\n", problem->c_str());
            return 2;
        }
    }
    installPlatform(args);
    std::printf("Fetching the configuration of https://%s ...\n", host->c_str());
    std::fflush(stdout);
    std::optional<bool> outcome;
    std::string reason;
    PelmSDK::setAppToken(*token, *host, [&](bool successful, const std::string& why) {
        outcome = successful;
        reason = why;
    });
    if (!runUntil([&] { return outcome.has_value(); })) {
        std::fprintf(stderr, "pelm setup: no answer within a minute\n");
        return 1;
    }
    if (const auto unstored = unstoredSettings(); !unstored.empty()) {
        std::string keys;
        for (const auto& key : unstored) keys += (keys.empty() ? "" : ", ") + key;
        std::fprintf(stderr,
                     "pelm setup: the settings could not be stored (%s); what was stored before stays\n",
                     keys.c_str());
        printSettings(*SettingsManager::sharedInstance(), args);
        return 1;
    }
    if (const auto unconfirmed = unconfirmedSettings(); !unconfirmed.empty()) {
        std::string keys;
        for (const auto& key : unconfirmed) keys += (keys.empty() ? "" : ", ") + key;
        std::fprintf(stderr,
                     "pelm setup: warning: the settings were written without an error, but reading them back "
                     "failed (%s); `pelm settings` shows what is stored\n",
                     keys.c_str());
    }
    if (*outcome) {
        std::printf("Configuration fetched and stored.\n");
    } else {
        std::fprintf(
            stderr,
            "pelm setup: could not fetch the configuration: %s. Token and host are stored, the beacon "
            "settings are unchanged.\n",
            reason.c_str());
    }
    printSettings(*SettingsManager::sharedInstance(), args);
    return *outcome ? 0 : 1;
}

}  // namespace pelm::cli
