#include "run_output.hpp"

#include <cstdio>

namespace pelm::cli {
namespace {

std::string named(const std::string& path) {
    return path == "-" ? "standard output" : path;
}

}  // namespace

std::optional<int> RunOutput::failed(const std::string& why, int code) const {
    std::fprintf(stderr, "pelm %s: %s\n", command_.c_str(), why.c_str());
    return code;
}

std::optional<int> RunOutput::open(const Arguments& args, const std::vector<std::string>& inputs) {
    const auto nearby = nearbyLines(args.option("nearby").value_or("changes"));
    if (!nearby) return failed("--nearby takes all, changes or none", 2);
    printer_.emplace(*nearby);
    eventsPath_ = args.option("events").value_or("");
    std::vector<std::pair<std::string, std::string>> outputs;
    for (const char* option : {"events", "report"}) {
        const auto path = args.option(option);
        if (!path) continue;
        if (const auto problem = sameFileProblem(std::string("--") + option, *path, inputs, outputs))
            return failed(*problem, 2);
    }
    std::string error;
    if (!events_.open(args.option("events"), error) || !report_.open(args.option("report"), error))
        return failed(error, 1);
    return std::nullopt;
}

void RunOutput::show(const TimelineEvent& event) {
    printer_->print(event);
    events_.write(event);
    if (report_.path()) run_.add(event);
}

std::optional<int> RunOutput::finish(const ReportHeader& header, std::chrono::milliseconds length,
                                     const JSON& storedVisits) {
    std::string error;
    if (!events_.close(error)) return failed(error, 1);
    if (!report_.path()) return std::nullopt;
    if (!report_.write(htmlReport(header, run_, length, storedVisits), error)) return failed(error, 1);
    std::printf("Report written to %s\n", named(*report_.path()).c_str());
    return std::nullopt;
}

std::optional<int> RunOutput::finishRooms(const std::string& recording, const std::string& source,
                                          const std::vector<RoomRun>& rooms) {
    std::string error;
    if (!events_.close(error)) return failed(error, 1);
    if (!report_.path()) return std::nullopt;
    if (!report_.write(htmlRoomsReport(recording, source, rooms), error)) return failed(error, 1);
    std::printf("Report written to %s\n", named(*report_.path()).c_str());
    return std::nullopt;
}

int RunOutput::interrupted(int code) {
    std::string error;
    const bool kept = events_.close(error);
    std::fprintf(stderr, "pelm %s: interrupted%s\n", command_.c_str(),
                 eventsPath_.empty() ? ""
                 : kept              ? ("; the events so far are in " + named(eventsPath_)).c_str()
                                     : ("; " + error).c_str());
    return code;
}

}  // namespace pelm::cli
