// A host app's own test, built against the installed tree with nothing but pelm::testing: the machine is the
// kit's (a virtual clock, a scripted beacon vendor, settings in memory), the server is the host's own
// stand-in behind the public transport seam. It checks what a host would: that a store's beacon brings its
// content to the delegate, and that the device status manager tells a Bluetooth change.
#include <pelm/pelm.hpp>
#include <pelm/testing/captured_log_sink.hpp>
#include <pelm/testing/fixed_identity.hpp>
#include <pelm/testing/memory_key_value_store.hpp>
#include <pelm/testing/scripted_beacon_vendor.hpp>
#include <pelm/testing/scripted_device_status.hpp>
#include <pelm/testing/virtual_loop.hpp>

#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
constexpr const char* kUuid = "F7826DA6-4FA2-4E98-8024-BC5B71E0893E";

int failures = 0;
void expect(bool holds, const std::string& what) {
    if (!holds) {
        std::cerr << "host test: expected " << what << "\n";
        ++failures;
    }
}

// The host's stand-in for its content server: the configuration and one beacon's entry content.
class ShopServer final : public pelm::platform::HttpTransport {
  public:
    explicit ShopServer(std::shared_ptr<pelm::platform::MainQueue> queue) : queue_(std::move(queue)) {}
    std::vector<std::string> urls;

    void send(pelm::platform::HttpRequest request,
              std::function<void(pelm::platform::HttpReply)> done) override {
        urls.push_back(request.url);
        pelm::platform::HttpReply reply;
        reply.status = 200;
        if (request.url.find("/app_config/by_app_token") != std::string::npos) {
            reply.body = std::string(R"({"status":"successful","app_config":{"default_beacon_uuid":")") +
                         kUuid + R"(","kontakt_io_api_key":"vendor-key"}})";
        } else if (request.url.find("/contents/by_hardware") != std::string::npos) {
            reply.body = R"({"status":"successful","content_entry":{"id":7,"display_type":"entry",)"
                         R"("text_record":{"name":"Fresh bread"}}})";
        } else {
            reply.status = 404;
        }
        queue_->post([done = std::move(done), reply = std::move(reply)] { done(reply); });
    }

  private:
    std::shared_ptr<pelm::platform::MainQueue> queue_;
};

struct Shopper final : pelm::PelmBeaconManagerDelegate, pelm::PelmDeviceStatusManagerDelegate {
    std::vector<std::string> contents, lines;
    std::vector<pelm::BluetoothStatus> bluetooth;
    void didFindContent(std::shared_ptr<pelm::Content> content) override {
        contents.push_back(content && content->textRecord ? content->textRecord->name.value_or("?") : "?");
    }
    void didReceiveLog(const std::string& text, bool) override { lines.push_back(text); }
    void didDiscoverBeacons(const std::vector<pelm::DiscoveredBeacon>&) override {}
    void didChangeReachableStatus(pelm::ReachableStatus) override {}
    void didChangeLocationStatus(pelm::LocationStatus) override {}
    void didChangeBluetoothStatus(pelm::BluetoothStatus status) override { bluetooth.push_back(status); }
};

pelm::platform::BeaconRegion storeRegion() {
    pelm::platform::BeaconRegion region;
    region.proximityUUID = *pelm::platform::ProximityUUID::parse(kUuid);
    region.identifier = "PELM Region";
    return region;
}

}  // namespace

int main() {
    auto loop = std::make_shared<pelm::testing::VirtualLoop>();
    auto vendor = std::make_shared<pelm::testing::ScriptedBeaconVendor>();
    auto bluetooth = std::make_shared<pelm::testing::ScriptedBluetooth>();
    auto server = std::make_shared<ShopServer>(loop);
    auto machine = std::make_shared<pelm::platform::Platform>();
    machine->mainQueue = loop;
    machine->store = std::make_shared<pelm::testing::MemoryKeyValueStore>();
    machine->identity = std::make_shared<pelm::testing::FixedIdentity>("device-1", "1.0", "1");
    machine->log = std::make_shared<pelm::testing::CapturedLogSink>();
    machine->http = server;
    machine->beaconVendor = vendor;
    machine->location = std::make_shared<pelm::testing::ScriptedLocation>();
    machine->bluetooth = bluetooth;
    pelm::platform::install(machine);

    bool stored = false;
    pelm::PelmSDK::setAppToken("shop-token", "shop.example", [&](bool ok) { stored = ok; });
    loop->runUntilIdle();
    expect(stored, "the configuration to be stored");

    auto shopper = std::make_shared<Shopper>();
    auto beacons = pelm::PelmBeaconManager::make();
    beacons->delegate = shopper;
    beacons->startMonitoring();
    vendor->enter(storeRegion());
    vendor->range({{*pelm::platform::ProximityUUID::parse(kUuid), 1, 9, -60, 0.8}}, storeRegion());
    loop->advance(1s);
    expect(shopper->contents == std::vector<std::string>{"Fresh bread"}, "the beacon's content");

    auto status = pelm::PelmDeviceStatusManager::make();
    status->delegate = shopper;
    status->startBluetoothNotifier();
    bluetooth->change(5);  // the platform's number for powered on
    loop->runUntilIdle();
    expect(!shopper->bluetooth.empty() && shopper->bluetooth.back() == pelm::BluetoothStatus::On,
           "Bluetooth told as on");

    beacons.reset();
    status.reset();
    pelm::platform::install(nullptr);
    for (const auto& line : shopper->lines) std::cout << line << "\n";
    return failures == 0 ? 0 : 1;
}
