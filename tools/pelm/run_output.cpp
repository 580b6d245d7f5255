#include "run_output.hpp"

#include <cstdio>

namespace pelm::cli {

std::optional<int> RunOutput::failed(const std::string& why, int code) const {
    std::fprintf(stderr, "pelm %s: %s\n", command_.c_str(), why.c_str());
    return code;
}

std::optional<int> RunOutput::open(const Arguments& args) {
    const auto nearby = nearbyLines(args.option("nearby").value_or("changes"));
    if (!nearby) return failed("--nearby takes all, changes or none", 2);
    printer_.emplace(*nearby);
    eventsPath_ = args.option("events").value_or("");
    std::string error;
    if (!events_.open(args.option("events"), error) || !report_.open(args.option("report"), error))
        return failed(error, 1);
    return std::nullopt;
}

void RunOutput::show(const TimelineEvent& event) {
    printer_->print(event);
    events_.write(event);
}

std::optional<int> RunOutput::finish(const ReportHeader& header, const std::vector<TimelineEvent>& timeline,
                                     std::chrono::milliseconds length, const JSON& storedVisits) {
    if (!events_.close()) return failed("cannot write " + eventsPath_, 1);
    if (!report_.path()) return std::nullopt;
    std::string error;
    if (!report_.write(htmlReport(header, timeline, length, storedVisits), error)) return failed(error, 1);
    std::printf("Report written to %s\n", report_.path()->c_str());
    return std::nullopt;
}

}  // namespace pelm::cli
