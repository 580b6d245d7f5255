#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pelm/beacons/discovered_beacon.hpp>
#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/events/visit_event.hpp>
#include <pelm/model/json_binding.hpp>
#include <pelm/platform/ble/region_engine.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/testing/virtual_loop.hpp>

namespace pelm::server {
class PelmServer;
}

namespace pelm::lab {

/// What the radio heard of one beacon device during one second: the mean signal of its advertisements.
struct HeardSignal {
    std::string uuid;
    int major = 0, minor = 0;
    /// The device's unique id when it tells one, its address otherwise.
    std::string device;
    int rssi = 0;
    int advertisements = 0;
};

/// One thing that happened during a run, `at` after its start: an event of the library (Visit), a status line
/// its delegate received, a line it logged as a fault, or (Heard) what the radio heard in the second before
/// `at`, which the host app never sees but a picture of the visit needs.
struct TimelineEvent {
    std::chrono::milliseconds at{0};
    enum class Kind { Visit, Status, Log, Heard } kind = Kind::Status;
    /// The line as told (Status, Log), or the event in words (Visit).
    std::string text;
    bool critical = false;
    /// Kind::Visit: the event itself.
    std::optional<events::VisitEventData> visit;
    std::vector<HeardSignal> signals;
    /// The virtual instant itself.
    Date when{};

    /// The Visit event as a T, or none.
    template <class T>
    const T* as() const {
        return visit ? std::get_if<T>(&*visit) : nullptr;
    }
};

/// Where a run's visits go: a server of one's own, or (when `host` is not given) the embedded pelm-server
/// seeded with `seed`, whose app has the token `token` ("demo-token" when not given).
struct ServerChoice {
    std::optional<std::string> host, token, caFile;
    JSON seed;
};

/// A host app in virtual time, as simulate and replay run it: the server, a platform whose beacon vendor is
/// a region engine on a virtual clock starting at `start`, setAppToken, and a monitoring beacon manager
/// whose delegate records what the host app receives. The platform is installed for the harness's life.
class VisitHarness {
  public:
    /// Each event goes to `onEvent` as it happens; the events are also kept for takeEvents() when
    /// `keepEvents`, which a long run pays for in memory.
    VisitHarness(const ServerChoice& server, Date start, std::function<void(const TimelineEvent&)> onEvent,
                 bool keepEvents = true);
    ~VisitHarness();
    VisitHarness(const VisitHarness&) = delete;
    VisitHarness& operator=(const VisitHarness&) = delete;

    /// Empty once the configuration was fetched and monitoring runs; otherwise why not.
    const std::string& failure() const { return failure_; }
    testing::VirtualLoop& loop() { return *loop_; }
    /// One advertisement for the region engine, heard now, with its iBeacon frame (none for other data);
    /// iBeacons are also summed up, a Heard event a second.
    void hear(const platform::HeardAdvertisement& advertisement,
              const std::optional<platform::IBeaconFrame>& frame);
    /// More for the embedded server to serve, in the form of its seed (see ServerChoice); a server of one's
    /// own is left alone.
    void addContents(const JSON& seed);
    Date start() const { return start_; }

    /// Ends the run: the beacon manager and the platform go, calls in flight complete. Then the events and,
    /// for the embedded server, the visits it stored.
    void finish();
    /// The events kept, handed over (none when they were not kept).
    std::vector<TimelineEvent> takeEvents();
    /// The time of the last event, from the start.
    std::chrono::milliseconds length() const;
    JSON storedVisits() const;

  private:
    class Recorder;
    std::unique_ptr<server::PelmServer> embedded_;
    std::string folder_;
    std::shared_ptr<testing::VirtualLoop> loop_;
    std::shared_ptr<platform::RegionEngine> engine_;
    std::shared_ptr<Recorder> recorder_;
    std::shared_ptr<void> subscription_;
    std::shared_ptr<platform::Platform> services_;
    std::shared_ptr<PelmBeaconManager> manager_;
    Date start_;
    std::string failure_;
    bool finished_ = false;
};

}  // namespace pelm::lab
