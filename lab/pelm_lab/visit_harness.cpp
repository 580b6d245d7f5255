#include "pelm_lab/visit_harness.hpp"

#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <tuple>

#include <pelm/pelm_sdk.hpp>
#include <pelm/platform/ble/ibeacon_advertisement.hpp>
#include <pelm/platform/linux/curl_transport.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/testing/fixed_identity.hpp>
#include <pelm/testing/memory_key_value_store.hpp>

#include "pelm_lab/event_lines.hpp"
#include "pelm_lab/refusal_watch.hpp"
#include "pelm_server/content_store.hpp"
#include "pelm_server/pelm_server.hpp"

namespace pelm::lab {

/// Collects what the host app hears and what the library tells of the visit, stamped with the virtual time
/// since the start.
class VisitHarness::Recorder : public PelmBeaconManagerDelegate,
                               public platform::LogSink,
                               public events::VisitEventListener {
  public:
    Recorder(std::shared_ptr<testing::VirtualLoop> loop, std::function<void(const TimelineEvent&)> onEvent,
             bool keep)
        : loop_(std::move(loop)), start_(loop_->now()), onEvent_(std::move(onEvent)), keep_(keep) {}

    // Content and nearby devices arrive as events, with the beacon they concern.
    void didFindContent(std::shared_ptr<Content>) override {}
    void didDiscoverBeacons(const std::vector<DiscoveredBeacon>&) override {}
    void didReceiveLog(const std::string& text, bool critical) override {
        TimelineEvent event = make(TimelineEvent::Kind::Status);
        event.text = text;
        event.critical = critical;
        add(std::move(event));
    }
    void onVisitEvent(const events::VisitEvent& visit) override {
        TimelineEvent event = make(TimelineEvent::Kind::Visit, visit.at);
        event.text = describe(visit.data);
        event.visit = visit.data;
        add(std::move(event));
    }
    void write(std::string_view line) override {
        TimelineEvent event = make(TimelineEvent::Kind::Log);
        event.text = std::string(line);
        event.critical = true;
        add(std::move(event));
    }

    /// Adds an iBeacon advertisement heard now to the current second's sums.
    void heard(const platform::HeardAdvertisement& advertisement, const platform::IBeaconFrame& frame) {
        const auto now = loop_->now();
        flushHeard(now);
        if (pending_.empty())
            windowEnd_ =
                start_ + std::chrono::floor<std::chrono::seconds>(now - start_) + std::chrono::seconds(1);
        const SignalKeyView key{frame.proximityUUID.bytes, frame.major, frame.minor,
                                advertisement.uniqueID ? *advertisement.uniqueID : advertisement.address};
        auto found = pending_.find(key);
        if (found == pending_.end())
            found =
                pending_.emplace(SignalKey{key.uuid, key.major, key.minor, std::string(key.device)}, Sum{})
                    .first;
        found->second.rssi += advertisement.rssi;
        ++found->second.count;
    }
    /// The second summed up so far becomes a Heard event once it is over, or at the end of the run.
    void flushHeard(Date now, bool force = false) {
        if (pending_.empty() || (now < windowEnd_ && !force)) return;
        TimelineEvent event = make(TimelineEvent::Kind::Heard, windowEnd_);
        for (const auto& [key, sum] : pending_) {
            event.signals.push_back(
                {platform::ProximityUUID{key.uuid}.uuidString(), key.major, key.minor, key.device,
                 static_cast<int>(std::lround(static_cast<double>(sum.rssi) / sum.count)), sum.count});
        }
        pending_.clear();
        record(std::move(event));
    }

    std::vector<TimelineEvent> events;
    std::chrono::milliseconds lastAt{0};

  private:
    struct Sum {
        long long rssi = 0;
        int count = 0;
    };
    // A beacon device's signals of one second are summed under its identity and its address, in the order
    // of the UUID's text, major, minor and address; a lookup needs no copy of the address.
    using UUIDBytes = std::array<std::uint8_t, 16>;
    struct SignalKey {
        UUIDBytes uuid;
        int major, minor;
        std::string device;
    };
    struct SignalKeyView {
        const UUIDBytes& uuid;
        int major, minor;
        std::string_view device;
    };
    struct SignalOrder {
        using is_transparent = void;
        template <class A, class B>
        bool operator()(const A& a, const B& b) const {
            return std::tie(a.uuid, a.major, a.minor) < std::tie(b.uuid, b.major, b.minor) ||
                   (std::tie(a.uuid, a.major, a.minor) == std::tie(b.uuid, b.major, b.minor) &&
                    std::string_view(a.device) < std::string_view(b.device));
        }
    };

    TimelineEvent make(TimelineEvent::Kind kind) const { return make(kind, loop_->now()); }
    TimelineEvent make(TimelineEvent::Kind kind, Date when) const {
        TimelineEvent event{};
        event.at = std::chrono::duration_cast<std::chrono::milliseconds>(when - start_);
        event.kind = kind;
        event.when = when;
        return event;
    }
    // What the radio heard comes first, so that the events stay in time order.
    void add(TimelineEvent event) {
        flushHeard(event.when);
        record(std::move(event));
    }
    void record(TimelineEvent event) {
        lastAt = event.at;
        if (onEvent_) onEvent_(event);
        if (keep_) events.push_back(std::move(event));
    }
    std::shared_ptr<testing::VirtualLoop> loop_;
    Date start_;
    std::function<void(const TimelineEvent&)> onEvent_;
    bool keep_;
    std::map<SignalKey, Sum, SignalOrder> pending_;
    Date windowEnd_{};
};

VisitHarness::VisitHarness(const ServerChoice& server, Date start,
                           std::function<void(const TimelineEvent&)> onEvent, bool keepEvents)
    : start_(start) {
    auto host = server.host;
    auto token = server.token;
    auto ca = server.caFile;
    if (!host) {
        folder_ =
            (std::filesystem::temp_directory_path() / ("pelm-visit-" + std::to_string(::getpid()))).string();
        server::PelmServer::Options options;
        options.certificateFolder = folder_;
        embedded_ = std::make_unique<server::PelmServer>(options);
        embedded_->store().seed(server.seed);
        embedded_->start();
        host = embedded_->host();
        token = server.token.value_or("demo-token");
        ca = *embedded_->caFile();
    }
    loop_ = std::make_shared<testing::VirtualLoop>(start);
    recorder_ = std::make_shared<Recorder>(loop_, std::move(onEvent), keepEvents);
    platform::CurlTransportOptions http;
    if (ca) http.extraCABundle = *ca;
    engine_ = std::make_shared<platform::RegionEngine>(loop_);
    services_ = std::make_shared<platform::Platform>();
    services_->mainQueue = loop_;
    services_->store = std::make_shared<testing::MemoryKeyValueStore>();
    services_->identity =
        std::make_shared<testing::FixedIdentity>("5E1F0000-0000-4000-8000-00000000C0DE", "sim", "1");
    services_->log = recorder_;  // library faults join the timeline
    subscription_ = events::subscribe(recorder_);
    const auto watch = std::make_shared<RefusalWatch>(std::make_shared<platform::CurlTransport>(loop_, http));
    services_->http = watch;
    services_->beaconVendor = engine_;
    platform::install(services_);

    bool configured = false;
    std::string reason;
    PelmSDK::setAppToken(token.value_or(""), *host, [&](bool ok, const std::string& why) {
        configured = ok;
        reason = why;
    });
    loop_->runUntilIdle();
    if (!configured) {
        failure_ = watch->refused() ? "https://" + *host + ": the server refused the app token (HTTP " +
                                          std::to_string(*watch->refused()) + ")"
                                    : "could not fetch the app configuration: " + reason;
        return;
    }
    manager_ = PelmBeaconManager::make();
    manager_->delegate = recorder_;
    manager_->startMonitoring();
}

VisitHarness::~VisitHarness() {
    finish();
}

void VisitHarness::hear(const platform::HeardAdvertisement& advertisement,
                        const std::optional<platform::IBeaconFrame>& frame) {
    if (frame) recorder_->heard(advertisement, *frame);
    engine_->hear(advertisement, frame);
}

void VisitHarness::addContents(const JSON& seed) {
    if (embedded_) embedded_->store().seed(seed);
}

void VisitHarness::finish() {
    if (finished_) return;
    finished_ = true;
    loop_->runUntilIdle();
    recorder_->flushHeard(loop_->now(), true);
    manager_.reset();
    subscription_.reset();
    if (platform::current() == services_) platform::install(nullptr);
    services_.reset();
    loop_->runUntilIdle();
    if (embedded_) {
        embedded_->stop();
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
}

std::vector<TimelineEvent> VisitHarness::takeEvents() {
    return std::move(recorder_->events);
}

std::chrono::milliseconds VisitHarness::length() const {
    return recorder_->lastAt;
}

JSON VisitHarness::storedVisits() const {
    return embedded_ ? embedded_->store().sessions() : JSON::array();
}

}  // namespace pelm::lab
