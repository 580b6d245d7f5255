// The host API for Python: the stored configuration, a beacon manager and a device status manager whose
// delegates are Python callables, and the loop that delivers to them.
#include <atomic>
#include <cstdio>
#include <memory>

#include <pybind11/functional.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/events/visit_event.hpp>
#include <pelm/model/json_text.hpp>
#include <pelm/pelm_sdk.hpp>
#include <pelm/status/pelm_device_status_manager.hpp>

#include "bindings.hpp"
#include "host_session.hpp"
#include "pelm_lab/event_lines.hpp"

namespace py = pybind11;

namespace pelm::python {

using lab::TimelineEvent;
namespace {

std::chrono::milliseconds millisecondsOf(double seconds) {
    if (!(seconds >= 0)) throw std::invalid_argument("timeout takes a number of seconds, 0 or more");
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

std::string secondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%g s", seconds);
    return text;
}

platform::BeaconSource sourceOf(const std::string& kind, const std::filesystem::path& file) {
    if (kind == "adapter") return platform::BeaconSource::bluetoothAdapter();
    if (kind == "scenario") return platform::BeaconSource::scenario(file);
    if (kind == "recording") return platform::BeaconSource::recording(file);
    if (kind == "none") return platform::BeaconSource::none();
    throw std::invalid_argument("a beacon source is adapter, scenario, recording or none, not " + kind);
}

void configure(std::string appName, std::optional<std::filesystem::path> configDirectory,
               std::optional<std::filesystem::path> ca, std::string sourceKind, std::filesystem::path file) {
    HostSession::instance().choose(
        {std::move(appName), std::move(configDirectory), std::move(ca), sourceOf(sourceKind, file)});
}

// setAppToken's answer, waited for: (stored and fetched, the reason when not).
std::pair<bool, std::string> setAppToken(const std::string& token, const std::string& host, double timeout) {
    auto& session = HostSession::instance();
    session.usePlatform();
    struct Answer {
        std::atomic<bool> done{false};
        bool successful = false;
        std::string reason;
    };
    auto answer = std::make_shared<Answer>();
    session.onLoop([&] {
        PelmSDK::setAppToken(token, host, [answer](bool successful, const std::string& reason) {
            answer->successful = successful;
            answer->reason = reason;
            answer->done = true;
        });
    });
    if (!session.wait([answer] { return answer->done.load(); }, millisecondsOf(timeout)))
        return {false, "the server " + host + " did not answer within " + secondsText(timeout)};
    return {answer->successful, answer->reason};
}

// What a beacon manager tells the host, handed to Python: status lines as they are, and every event of the
// library as the JSON line the events file holds, from which Python makes its typed events.
class BeaconDelegate : public PelmBeaconManagerDelegate, public events::VisitEventListener {
  public:
    BeaconDelegate(SharedObject onStatus, SharedObject onEvent)
        : onStatus_(std::move(onStatus)), onEvent_(std::move(onEvent)) {}

    void didFindContent(std::shared_ptr<Content>) override {}  // told, with its beacon, by the event
    void didReceiveLog(const std::string& text, bool critical) override {
        HostSession::instance().call(onStatus_, text, critical);
    }
    void didDiscoverBeacons(const std::vector<DiscoveredBeacon>&) override {}  // told by the event
    void onVisitEvent(const events::VisitEvent& event) override {
        if (!onEvent_) return;
        TimelineEvent line;
        line.kind = TimelineEvent::Kind::Visit;
        line.visit = event.data;
        line.when = event.at;
        line.text = lab::describe(event.data);
        HostSession::instance().call(onEvent_, jsonText(lab::eventJSON(line)), line.text);
    }

  private:
    SharedObject onStatus_, onEvent_;
};

class BeaconManagerHandle {
  public:
    BeaconManagerHandle(py::object onStatus, py::object onEvent) {
        auto& session = HostSession::instance();
        session.usePlatform();
        delegate_ = std::make_shared<BeaconDelegate>(share(std::move(onStatus)), share(std::move(onEvent)));
        session.onLoop([this] {
            manager_ = PelmBeaconManager::make();
            manager_->delegate = delegate_;
            subscription_ = events::subscribe(delegate_);
        });
    }
    ~BeaconManagerHandle() { close(); }
    BeaconManagerHandle(const BeaconManagerHandle&) = delete;
    BeaconManagerHandle& operator=(const BeaconManagerHandle&) = delete;

    void start() {
        HostSession::instance().onLoop([this] { live().startMonitoring(); });
    }
    void startDiscovery(std::optional<double> interval) {
        HostSession::instance().onLoop([this, interval] { live().startDiscoveryWithInterval(interval); });
    }
    void stopDiscovery() {
        HostSession::instance().onLoop([this] { live().stopDiscovery(); });
    }
    // Ends the visit in progress as if the shopper left now and uploads it: "uploaded", "not uploaded"
    // (refused, unreachable, or no answer within `timeout`) or "none".
    std::string stop(double timeout) {
        struct Outcome {
            std::atomic<bool> done{false};
            std::atomic<VisitAtStop> visit{VisitAtStop::notUploaded};
        };
        auto outcome = std::make_shared<Outcome>();
        auto& session = HostSession::instance();
        session.onLoop([this, outcome] {
            live().stop([outcome](VisitAtStop visit) {
                outcome->visit = visit;
                outcome->done = true;
            });
        });
        session.wait([outcome] { return outcome->done.load(); }, millisecondsOf(timeout));
        switch (outcome->visit.load()) {
            case VisitAtStop::uploaded:
                return "uploaded";
            case VisitAtStop::none:
                return "none";
            default:
                return "not uploaded";
        }
    }
    // Lets go of the manager; its delegate hears nothing more.
    void close() {
        if (!manager_) return;
        auto manager = std::move(manager_);
        auto subscription = std::move(subscription_);
        HostSession::instance().onLoop([&] {
            subscription.reset();
            manager.reset();
        });
        delegate_.reset();
    }

  private:
    PelmBeaconManager& live() {
        if (!manager_) throw std::logic_error("the beacon manager was closed");
        return *manager_;
    }

    std::shared_ptr<BeaconDelegate> delegate_;
    std::shared_ptr<PelmBeaconManager> manager_;
    std::shared_ptr<void> subscription_;
};

class StatusDelegate : public PelmDeviceStatusManagerDelegate {
  public:
    StatusDelegate(SharedObject reachable, SharedObject location, SharedObject bluetooth)
        : reachable_(std::move(reachable)),
          location_(std::move(location)),
          bluetooth_(std::move(bluetooth)) {}
    void didChangeReachableStatus(ReachableStatus status) override { tell(reachable_, to_string(status)); }
    void didChangeLocationStatus(LocationStatus status) override { tell(location_, to_string(status)); }
    void didChangeBluetoothStatus(BluetoothStatus status) override { tell(bluetooth_, to_string(status)); }

  private:
    static void tell(const SharedObject& callback, std::string_view status) {
        HostSession::instance().call(callback, std::string(status));
    }
    SharedObject reachable_, location_, bluetooth_;
};

class DeviceStatusHandle {
  public:
    DeviceStatusHandle(py::object reachable, py::object location, py::object bluetooth) {
        auto& session = HostSession::instance();
        session.usePlatform();
        auto delegate = std::make_shared<StatusDelegate>(
            share(std::move(reachable)), share(std::move(location)), share(std::move(bluetooth)));
        session.onLoop([&] {
            manager_ = PelmDeviceStatusManager::make();
            manager_->delegate = delegate;
        });
    }
    ~DeviceStatusHandle() { close(); }
    DeviceStatusHandle(const DeviceStatusHandle&) = delete;
    DeviceStatusHandle& operator=(const DeviceStatusHandle&) = delete;

    void start() {
        HostSession::instance().onLoop([this] {
            if (!manager_) throw std::logic_error("the device status manager was closed");
            manager_->startReachabilityNotifier();
            manager_->startLocationNotifier();
            manager_->startBluetoothNotifier();
        });
    }
    void close() {
        if (!manager_) return;
        auto manager = std::move(manager_);
        HostSession::instance().onLoop([&] { manager.reset(); });
    }

  private:
    std::shared_ptr<PelmDeviceStatusManager> manager_;
};

}  // namespace

void bindHost(py::module_& module) {
    module.def("configure", &configure, py::arg("app_name"), py::arg("config_dir"), py::arg("ca"),
               py::arg("source_kind"), py::arg("source_file"));
    module.def("set_app_token", &setAppToken, py::arg("token"), py::arg("host"), py::arg("timeout"));
    module.def(
        "run", [](std::optional<double> seconds) { return HostSession::instance().run(seconds); },
        py::arg("seconds") = py::none());
    module.def("stop", [] { HostSession::instance().stop(); });
    module.def("shutdown", [] { HostSession::instance().shutdown(); });

    py::class_<BeaconManagerHandle>(module, "BeaconManager")
        .def(py::init<py::object, py::object>(), py::arg("on_status"), py::arg("on_event"))
        .def("start", &BeaconManagerHandle::start)
        .def("start_discovery", &BeaconManagerHandle::startDiscovery, py::arg("interval") = py::none())
        .def("stop_discovery", &BeaconManagerHandle::stopDiscovery)
        .def("stop", &BeaconManagerHandle::stop, py::arg("timeout"))
        .def("close", &BeaconManagerHandle::close);

    py::class_<DeviceStatusHandle>(module, "DeviceStatus")
        .def(py::init<py::object, py::object, py::object>(), py::arg("on_reachable"), py::arg("on_location"),
             py::arg("on_bluetooth"))
        .def("start", &DeviceStatusHandle::start)
        .def("close", &DeviceStatusHandle::close);
}

}  // namespace pelm::python
