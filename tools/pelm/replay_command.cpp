#include <cstdio>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/ble/recording_reader.hpp>
#include <pelm/platform/proximity_uuid.hpp>

#include "cli.hpp"
#include "pelm_cli/stop_signals.hpp"
#include "pelm_cli/text_numbers.hpp"
#include "pelm_lab/replay.hpp"
#include "run_output.hpp"

namespace pelm::cli {
namespace {

// The options every replay takes; the exit code when one is wrong.
std::optional<int> readOptions(const Arguments& args, ReplayOptions& options) {
    options.recording = args.positional()[1];
    options.scanner = args.option("scanner");
    options.uuid = args.option("uuid");
    options.host = args.option("host");
    options.token = args.option("token");
    options.caFile = args.option("ca");
    const auto speed = decimalNumber(args.option("speed").value_or("0"));
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
    if (const auto problem = hostArgumentProblem(args)) {
        std::fprintf(stderr, "pelm replay: %s\n", problem->c_str());
        return 2;
    }
    if (options.host.has_value() != options.token.has_value()) {
        std::fprintf(stderr, "pelm replay: --host and --token go together\n");
        return 2;
    }
    return std::nullopt;
}

int listScannersOf(const ReplayOptions& options) {
    const auto list = listScanners(options.recording);
    std::printf("%s: %zu scanner%s\n", options.recording.c_str(), list.scanners.size(),
                list.scanners.size() == 1 ? "" : "s");
    for (const auto& scanner : list.scanners) {
        std::printf("  %s\n", scanner.line().c_str());
        if (!scanner.uuids.empty()) std::printf("    %s\n", scanner.uuidsLine().c_str());
    }
    if (list.otherAdvertisements > 0) {
        std::printf("  and more: %llu advertisements from receivers beyond the first %zu\n",
                    static_cast<unsigned long long>(list.otherAdvertisements), kMostScanners);
    }
    return 0;
}

// "Watched UUID X (the most heard); ignored Y, Z": which beacons were the app's and which were not.
std::string watchedLine(const std::string& uuid, const std::vector<std::string>& others,
                        const ReplayOptions& options) {
    std::string line = "Watched UUID " + uuid + (options.uuid ? " (--uuid)" : " (the most heard)");
    if (others.empty()) return line;
    line += "; ignored " + std::to_string(others.size()) + " other" + (others.size() == 1 ? "" : "s") + ":";
    constexpr std::size_t kNamed = 3;
    for (std::size_t i = 0; i < others.size() && i < kNamed; ++i) line += (i == 0 ? " " : ", ") + others[i];
    if (others.size() > kNamed) line += ", ...";
    return line;
}

// Warnings and the summary after a run; the exit code when it failed.
std::optional<int> reportRun(const ReplayOptions& options, const ReplayResult& result,
                             const Arguments& args) {
    if (!result.failure.empty()) {
        std::fprintf(stderr, "pelm replay: %s: %s\n", options.recording.c_str(), result.failure.c_str());
        return 1;
    }
    if (result.summary.warning)
        std::fprintf(stderr, "pelm replay: warning: %s\n", result.summary.warning->c_str());
    for (const auto& warning : result.timeWarnings)
        std::fprintf(stderr, "pelm replay: warning: %s\n", warning.c_str());
    std::printf("\n%s\n", result.summary.line().c_str());
    if (!result.uuid.empty())
        std::printf("%s\n", watchedLine(result.uuid, result.otherUuids, options).c_str());
    if (!options.host) {
        std::printf("The visits as the server stored them:\n");
        printStoredVisits(result.storedVisits, args.flag("json"));
    }
    return std::nullopt;
}

int replayOne(ReplayOptions& options, const Arguments& args, const StopSignals& stop, RunOutput& output) {
    std::printf("Replaying %s%s\nWhat the host app sees:\n", options.recording.c_str(),
                options.scanner ? (" as heard by " + *options.scanner).c_str() : "");
    std::fflush(stdout);
    const auto result = runReplay(options, [&](const TimelineEvent& event) { output.show(event); });
    if (result.interrupted) return output.interrupted(stop.exitCode());
    if (const auto failure = reportRun(options, result, args)) return *failure;
    if (const auto failure = output.finish(reportHeader(options, result), result.length, result.storedVisits))
        return *failure;
    return 0;
}

// Each receiver as a phone of its own, one after the other, and one report of them all.
int replayEachScanner(ReplayOptions& options, const Arguments& args, const StopSignals& stop,
                      RunOutput& output) {
    const auto list = listScanners(options.recording);
    // One app in one store: the UUID is chosen once, over every room, not room by room.
    if (!options.uuid) options.uuid = list.mostHeardUuid();
    if (options.uuid) {
        std::printf("%s, over all %zu scanners\n",
                    watchedLine(*options.uuid, list.otherUuids(*options.uuid), ReplayOptions{}).c_str(),
                    list.scanners.size());
    }
    std::vector<RoomRun> rooms;
    for (const auto& scanner : list.scanners) {
        if (scanner.name.empty()) continue;
        options.scanner = scanner.name;
        output.startRoom(scanner.name);
        std::printf("\n== %s\n", scanner.line().c_str());
        std::fflush(stdout);
        const auto result = runReplay(options, [&](const TimelineEvent& event) { output.show(event); });
        if (result.interrupted) return output.interrupted(stop.exitCode());
        if (const auto failure = reportRun(options, result, args)) return *failure;
        rooms.push_back({scanner.name, scanner.heard(), result.start, output.takeRun(), result.length,
                         result.storedVisits});
    }
    if (rooms.empty()) {
        std::fprintf(stderr,
                     "pelm replay: %s: its advertisements name no scanner; replay it without --scanner\n",
                     options.recording.c_str());
        return 1;
    }
    const auto source = options.recording.string() + ": " + std::to_string(rooms.size()) + " scanner" +
                        (rooms.size() == 1 ? "" : "s") + ", each replayed as a phone of its own";
    if (const auto failure = output.finishRooms(options.recording.filename().string(), source, rooms))
        return *failure;
    return 0;
}

}  // namespace

int replayCommand(const Arguments& args) {
    if (args.positional().size() != 2) return kShowUsage;
    ReplayOptions options;
    if (const auto failure = readOptions(args, options)) return *failure;
    try {
        if (args.flag("scanners")) return listScannersOf(options);
        auto& stop = StopSignals::watch();  // before the embedded server's threads start
        RunOutput output("replay");
        if (const auto failure = output.open(args, {options.recording.string()})) return *failure;
        options.stopRequested = [&stop] { return stop.requested(); };
        // The report is drawn up as the events come; the replay itself keeps none of them.
        options.keepTimeline = false;
        if (options.scanner == "all") return replayEachScanner(options, args, stop, output);
        return replayOne(options, args, stop, output);
    } catch (const platform::RecordingError& e) {
        std::fprintf(stderr, "pelm replay: %s\n", e.what());
        return 1;
    }
}

}  // namespace pelm::cli
