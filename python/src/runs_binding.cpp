// pelm.replay, pelm.simulate and pelm.report over the lab, and the embedded server a host tries itself
// against. Each run holds no GIL while it goes; Ctrl-C ends it as it ends the pelm command's.
#include <unistd.h>
#include <atomic>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/linux/bounded_file.hpp>
#include <pelm/platform/proximity_uuid.hpp>

#include "bindings.hpp"
#include "interrupt_check.hpp"
#include "pelm_lab/demo_scenario.hpp"
#include "pelm_lab/replay.hpp"
#include "pelm_lab/simulation.hpp"
#include "pelm_server/content_store.hpp"
#include "pelm_server/demo_seed.hpp"
#include "pelm_server/pelm_server.hpp"
#include "run_record.hpp"

namespace py = pybind11;

namespace pelm::python {

using namespace pelm::lab;
namespace {

/// A run that could not take place: what `pelm replay` or `pelm simulate` would say after its name.
class RunError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Replayed {
    RunRecord record;
    std::string summary, uuid;
    std::vector<std::string> otherUuids, warnings;
    std::int64_t start = 0;
};

struct Simulated {
    RunRecord record;
    std::uint64_t advertisements = 0;
    std::int64_t start = 0;
};

std::int64_t microsecondsOf(Date when) {
    return when.time_since_epoch().count();
}

// A server of one's own for a run, or the embedded one when no host is given; checked before anything else.
struct ServerArguments {
    ServerArguments(std::optional<std::string> host, std::optional<std::string> token,
                    std::optional<std::string> ca)
        : host(std::move(host)), token(std::move(token)), ca(std::move(ca)) {
        if (this->host.has_value() != this->token.has_value())
            throw std::invalid_argument("host and token go together");
    }
    std::optional<std::string> host, token, ca;
};

// Runs `run(options)` with the GIL released, on the server chosen, Ctrl-C noticed as the run goes; raises
// what Python's signal handlers raised. Replay and simulation options name their server alike.
template <class Options, class Run>
auto runUnlocked(Options& options, ServerArguments server, Run run) {
    options.host = std::move(server.host);
    options.token = std::move(server.token);
    options.caFile = std::move(server.ca);
    InterruptCheck interrupt;
    options.stopRequested = [&interrupt] { return interrupt(); };
    decltype(run(options)) result;
    {
        py::gil_scoped_release unlocked;
        result = run(options);
    }
    interrupt.rethrow();
    return result;
}

std::unique_ptr<Replayed> replay(const std::filesystem::path& recording, std::optional<std::string> uuid,
                                 std::optional<std::string> scanner, std::optional<std::string> host,
                                 std::optional<std::string> token, std::optional<std::string> ca) {
    ServerArguments server(std::move(host), std::move(token), std::move(ca));
    ReplayOptions options;
    options.recording = recording;
    options.scanner = std::move(scanner);
    if (uuid) {
        const auto parsed = platform::ProximityUUID::parse(*uuid);
        if (!parsed)
            throw std::invalid_argument("uuid takes a UUID like F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
        options.uuid = parsed->uuidString();
    }
    auto result =
        runUnlocked(options, std::move(server), [](const ReplayOptions& o) { return runReplay(o); });
    if (!result.failure.empty()) throw RunError(recording.string() + ": " + result.failure);
    auto out = std::make_unique<Replayed>();
    out->record.header = reportHeader(options, result);
    out->record.length = result.length;
    out->record.storedVisits = std::move(result.storedVisits);
    out->record.timeline = std::move(result.timeline);
    out->summary = result.summary.line();
    out->uuid = result.uuid;
    out->otherUuids = result.otherUuids;
    out->warnings = result.timeWarnings;
    if (result.summary.warning) out->warnings.insert(out->warnings.begin(), *result.summary.warning);
    out->start = microsecondsOf(result.start);
    return out;
}

JSON scenarioJSON(const std::optional<std::filesystem::path>& file) {
    if (!file) return *parseJSONText(lab::demoScenarioText());
    auto read = platform::readJSONFile(*file);
    if (!read.json) throw std::invalid_argument(read.error);
    return std::move(*read.json);
}

std::unique_ptr<Simulated> simulate(const std::optional<std::filesystem::path>& scenario, std::int64_t seed,
                                    std::optional<std::string> host, std::optional<std::string> token,
                                    std::optional<std::string> ca) {
    ServerArguments server(std::move(host), std::move(token), std::move(ca));
    if (seed < 0 || seed > (std::int64_t{1} << 53))
        throw std::invalid_argument("seed takes a whole number from 0 to 2^53");
    SimulationOptions options;
    try {
        options.scenario = platform::Scenario::fromJSON(scenarioJSON(scenario));
    } catch (const platform::ScenarioError& e) {
        throw std::invalid_argument(std::string("bad scenario: ") + e.what());
    }
    options.seed = static_cast<std::uint64_t>(seed);
    auto result =
        runUnlocked(options, std::move(server), [](const SimulationOptions& o) { return runSimulation(o); });
    if (!result.failure.empty()) throw RunError(result.failure);
    auto out = std::make_unique<Simulated>();
    out->record.header = reportHeader(options, result);
    out->record.length = result.simulated;
    out->record.storedVisits = std::move(result.storedVisits);
    out->record.timeline = std::move(result.timeline);
    out->advertisements = result.advertisements;
    out->start = microsecondsOf(result.start);
    return out;
}

void writeReport(const RunRecord& record, const std::string& path) {
    ReportFile file;
    std::string error;
    if (!file.open(path, error) || !file.write(record.html(), error)) throw std::invalid_argument(error);
}

// The reference server with the demo data (or a seed of one's own), on a free port of this machine, with a
// throwaway certificate authority in a folder of its own.
class EmbeddedServer {
  public:
    explicit EmbeddedServer(const std::optional<std::string>& seedText) {
        static std::atomic<int> made{0};
        folder_ = std::filesystem::temp_directory_path() /
                  ("pelm-python-" + std::to_string(::getpid()) + "-" + std::to_string(made++));
        const auto seed = parseJSONText(seedText ? *seedText : server::demoSeedText());
        if (!seed) throw std::invalid_argument("the seed is not JSON");
        server::PelmServer::Options options;
        options.certificateFolder = folder_;
        server_ = std::make_unique<server::PelmServer>(options);
        server_->store().seed(*seed);
        server_->start();
    }
    ~EmbeddedServer() { close(); }
    EmbeddedServer(const EmbeddedServer&) = delete;
    EmbeddedServer& operator=(const EmbeddedServer&) = delete;

    void close() {
        if (!server_) return;
        server_->stop();
        server_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    server::PelmServer& server() {
        if (!server_) throw std::logic_error("the server was closed");
        return *server_;
    }

  private:
    std::filesystem::path folder_;
    std::unique_ptr<server::PelmServer> server_;
};

}  // namespace

void bindRuns(py::module_& module) {
    py::register_exception<RunError>(module, "RunError", PyExc_RuntimeError);

    py::class_<RunRecord>(module, "RunRecord")
        .def("events", &RunRecord::events)
        .def("signals", &RunRecord::signals)
        .def("html", &RunRecord::html)
        .def("write_report", &writeReport, py::arg("path"))
        .def_property_readonly("length_ms", [](const RunRecord& r) { return r.length.count(); })
        .def_property_readonly("visits_json", [](const RunRecord& r) { return jsonText(r.storedVisits); });

    py::class_<Replayed>(module, "Replayed")
        .def_property_readonly(
            "record", [](Replayed& r) -> RunRecord& { return r.record; },
            py::return_value_policy::reference_internal)
        .def_readonly("summary", &Replayed::summary)
        .def_readonly("uuid", &Replayed::uuid)
        .def_readonly("other_uuids", &Replayed::otherUuids)
        .def_readonly("warnings", &Replayed::warnings)
        .def_readonly("start_us", &Replayed::start);
    module.def("replay", &replay, py::arg("path"), py::arg("uuid") = py::none(),
               py::arg("scanner") = py::none(), py::arg("host") = py::none(), py::arg("token") = py::none(),
               py::arg("ca") = py::none());

    py::class_<Simulated>(module, "Simulated")
        .def_property_readonly(
            "record", [](Simulated& r) -> RunRecord& { return r.record; },
            py::return_value_policy::reference_internal)
        .def_readonly("advertisements", &Simulated::advertisements)
        .def_readonly("start_us", &Simulated::start);
    module.def("simulate", &simulate, py::arg("scenario") = py::none(), py::arg("seed") = 1,
               py::arg("host") = py::none(), py::arg("token") = py::none(), py::arg("ca") = py::none());

    py::class_<EmbeddedServer>(module, "Server")
        .def(py::init<const std::optional<std::string>&>(), py::arg("seed") = py::none())
        .def_property_readonly("host", [](EmbeddedServer& s) { return s.server().host(); })
        .def_property_readonly("ca", [](EmbeddedServer& s) { return *s.server().caFile(); })
        .def("visits_json", [](EmbeddedServer& s) { return jsonText(s.server().store().sessions()); })
        .def("close", &EmbeddedServer::close, py::call_guard<py::gil_scoped_release>());
}

}  // namespace pelm::python
