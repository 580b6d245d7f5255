#include <cstdio>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/ble/recording_reader.hpp>
#include <pelm/platform/proximity_uuid.hpp>

#include "cli.hpp"
#include "interruption.hpp"
#include "pelm_lab/replay.hpp"
#include "pelm_server/text_numbers.hpp"
#include "run_output.hpp"

namespace pelm::cli {

int replayCommand(const Arguments& args) {
    const auto& words = args.positional();
    if (words.size() != 2) return kShowUsage;
    Interruption interruption;  // before the embedded server's threads start
    ReplayOptions options;
    options.recording = words[1];
    options.scanner = args.option("scanner");
    options.uuid = args.option("uuid");
    options.host = args.option("host");
    options.token = args.option("token");
    options.caFile = args.option("ca");
    const auto speed = server::decimalNumber(args.option("speed").value_or("0"));
    // Unset (0) plays as fast as it can; a speed given must be a real one.
    if (!speed || *speed < 0 || (args.option("speed") && *speed <= 0)) {
        std::fprintf(stderr, "pelm replay: --speed takes a number above 0\n");
        return 2;
    }
    options.speed = *speed;
    if (options.uuid && !platform::ProximityUUID::parse(*options.uuid)) {
        std::fprintf(stderr, "pelm replay: --uuid takes a UUID like F7826DA6-4FA2-4E98-8024-BC5B71E0893E\n");
        return 2;
    }
    if (options.uuid) options.uuid = platform::ProximityUUID::parse(*options.uuid)->uuidString();
    if (options.host.has_value() != options.token.has_value()) {
        std::fprintf(stderr, "pelm replay: --host and --token go together\n");
        return 2;
    }
    RunOutput output("replay");
    if (const auto failure = output.open(args, {words[1]})) return *failure;
    options.stopRequested = [&] { return interruption.requestedEvery(4096); };
    std::printf("Replaying %s\nWhat the host app sees:\n", options.recording.c_str());
    std::fflush(stdout);
    ReplayResult result;
    try {
        result = runReplay(options, [&](const TimelineEvent& event) { output.show(event); });
    } catch (const platform::RecordingError& e) {
        std::fprintf(stderr, "pelm replay: %s\n", e.what());
        return 1;
    }
    if (result.interrupted) return output.interrupted(interruption.exitCode());
    if (!result.failure.empty()) {
        std::fprintf(stderr, "pelm replay: %s: %s\n", options.recording.c_str(), result.failure.c_str());
        return 1;
    }
    if (result.summary.warning)
        std::fprintf(stderr, "pelm replay: warning: %s\n", result.summary.warning->c_str());
    for (const auto& warning : result.timeWarnings)
        std::fprintf(stderr, "pelm replay: warning: %s\n", warning.c_str());
    std::printf("\n%s\n", result.summary.line().c_str());
    if (!options.host) {
        std::printf("The visits as the server stored them:\n");
        printStoredVisits(result.storedVisits, args.flag("json"));
    }
    const ReportHeader header{options.recording.filename().string(),
                              options.recording.string() + ": " + result.summary.line(), result.start};
    const auto length = result.timeline.empty() ? std::chrono::milliseconds(0) : result.timeline.back().at;
    if (const auto failure = output.finish(header, result.timeline, length, result.storedVisits))
        return *failure;
    return 0;
}

}  // namespace pelm::cli
