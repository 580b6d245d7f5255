#include <cstdio>

#include "cli.hpp"
#include "pelm_cli/stop_signals.hpp"
#include "pelm_cli/text_numbers.hpp"
#include "pelm_lab/output_file.hpp"
#include "pelm_lab/trace_recorder.hpp"

namespace pelm::cli {

int recordCommand(const Arguments& args) {
    const auto& words = args.positional();
    if (words.size() != 2) return kShowUsage;
    std::optional<std::chrono::milliseconds> duration;
    if (const auto seconds = args.option("seconds")) {
        const auto value = wholeNumber(*seconds, 1, 7 * 24 * 3600);
        if (!value) {
            std::fprintf(stderr, "pelm record: --seconds takes a whole number from 1 to 604800\n");
            return 2;
        }
        duration = std::chrono::seconds(*value);
    }
    // Written beside the file and put in its place at the end: a recording that cannot start (no adapter) or
    // fails leaves an earlier file as it was.
    OutputFile out;
    std::string error;
    if (!out.open(words[1], error)) {
        std::fprintf(stderr, "pelm record: %s\n", error.c_str());
        return 1;
    }
    // Ctrl-C and SIGTERM end the recording; they are taken here, between lines, never in the middle of one.
    const auto& stop = StopSignals::watch();
    const auto stopRequested = [&stop] { return stop.requested(); };
    std::fprintf(stderr, "Recording to %s%s; Ctrl-C ends it.\n", words[1].c_str(),
                 duration ? (" for " + std::to_string(duration->count() / 1000) + " s").c_str() : "");
    try {
        const auto lines = recordTrace({}, out.stream(), duration, stopRequested);
        if (!out.commit(error)) {
            std::fprintf(stderr, "pelm record: %s\n", error.c_str());
            return 1;
        }
        std::fprintf(stderr, "%llu advertisements written to %s\n", static_cast<unsigned long long>(lines),
                     words[1].c_str());
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "pelm record: %s\n", e.what());
        return 1;
    }
}

}  // namespace pelm::cli
