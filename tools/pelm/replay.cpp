#include "replay.hpp"

#include <cstdio>
#include <map>
#include <set>
#include <thread>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/ble/ibeacon_advertisement.hpp>
#include <pelm/platform/ble/recording_reader.hpp>

#include "pelm_server/demo_seed.hpp"

namespace pelm::cli {
namespace {

using namespace std::chrono_literals;

struct Identity {
    std::string uuid;
    std::uint16_t major = 0, minor = 0;
    auto operator<=>(const Identity&) const = default;
};

// One pass: counts, and the identities heard (few, whatever the file's size).
RecordingSummary summarise(const ReplayOptions& options, std::set<Identity>& identities) {
    RecordingSummary summary;
    auto reader = platform::RecordingReader::open(options.recording);
    summary.format = reader->format();
    std::set<std::string> devices;
    std::map<std::string, std::uint64_t> uuids;
    while (auto heard = reader->next()) {
        if (options.scanner && heard->receiver != *options.scanner) continue;
        if (summary.advertisements++ == 0) summary.first = heard->at;
        summary.last = heard->at;
        devices.insert(heard->address);
        if (const auto frame = platform::parseIBeacon(heard->data)) {
            ++summary.beaconAdvertisements;
            const auto uuid = frame->proximityUUID.uuidString();
            ++uuids[uuid];
            identities.insert({uuid, frame->major, frame->minor});
        }
    }
    summary.devices = devices.size();
    summary.warning = reader->warning();
    std::uint64_t most = 0;
    for (const auto& [uuid, count] : uuids) {
        if (count > most) {
            most = count;
            summary.mostHeardUuid = uuid;
        }
    }
    return summary;
}

// The demo app, watching `uuid`, with an entry and an exit content for every beacon of it that was heard.
JSON seedFor(const std::string& uuid, const std::set<Identity>& identities) {
    auto seed = *parseJSONText(server::demoSeedText());
    seed["apps"][0]["app_config"]["default_beacon_uuid"] = uuid;
    seed["contents"] = JSON::array();
    std::int64_t id = 1000;
    for (const auto& beacon : identities) {
        if (beacon.uuid != uuid) continue;
        const auto name = std::to_string(beacon.major) + "/" + std::to_string(beacon.minor);
        for (const char* type : {"entry", "exit"}) {
            const bool entry = std::string(type) == "entry";
            seed["contents"].push_back(
                {{"app_token", "demo-token"},
                 {"display_type", type},
                 {"beacon", {{"uuid", uuid}, {"major", beacon.major}, {"minor", beacon.minor}}},
                 {"content",
                  {{"id", id++},
                   {"display_type", type},
                   {"cool_down_time", 600},
                   {"text_record", {{"name", (entry ? "Near " : "Left ") + name}}}}}});
        }
    }
    return seed;
}

std::string clockText(std::chrono::milliseconds span) {
    char text[32];
    const auto total = span.count();
    std::snprintf(text, sizeof text, "%02lld:%02lld.%lld", static_cast<long long>(total / 60000),
                  static_cast<long long>(total / 1000 % 60), static_cast<long long>(total / 100 % 10));
    return text;
}

}  // namespace

std::string RecordingSummary::line() const {
    return std::to_string(advertisements) + " advertisements (" + std::to_string(beaconAdvertisements) +
           " iBeacon) from " + std::to_string(devices) + " devices over " +
           clockText(std::chrono::duration_cast<std::chrono::milliseconds>(last - first)) + " of recording";
}

ReplayResult runReplay(const ReplayOptions& options,
                       const std::function<void(const TimelineEvent&)>& onEvent) {
    ReplayResult result;
    std::set<Identity> identities;
    result.summary = summarise(options, identities);
    if (result.summary.advertisements == 0) {
        result.failure =
            options.scanner ? "no advertisement heard by " + *options.scanner : "no advertisement in it";
        return result;
    }
    const auto uuid = options.uuid ? options.uuid : result.summary.mostHeardUuid;
    if (!uuid) {
        result.failure = "no iBeacon in it; give the app's UUID with --uuid";
        return result;
    }
    result.uuid = *uuid;
    result.start = std::chrono::floor<std::chrono::seconds>(result.summary.first) - 1s;
    ServerChoice server{options.host, options.token, options.caFile, seedFor(*uuid, identities)};
    VisitHarness harness(server, result.start, onEvent);
    result.failure = harness.failure();
    if (result.failure.empty()) {
        auto reader = platform::RecordingReader::open(options.recording);
        while (auto heard = reader->next()) {
            if (options.scanner && heard->receiver != *options.scanner) continue;
            const auto wait =
                std::chrono::duration_cast<std::chrono::milliseconds>(heard->at - harness.loop().now());
            if (wait.count() > 0) {
                if (options.speed > 0)
                    std::this_thread::sleep_for(
                        std::chrono::duration<double, std::milli>(wait.count() / options.speed));
                harness.loop().advance(wait);
            }
            harness.hear(*heard);
            harness.loop().runUntilIdle();
        }
        // The end of a recording is radio silence: regions are left, the visit goes up.
        harness.loop().advance(45s);
    }
    harness.finish();
    result.timeline = harness.events();
    result.storedVisits = harness.storedVisits();
    return result;
}

}  // namespace pelm::cli
