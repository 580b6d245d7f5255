#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pelm/platform/linux/curl_transport.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/testing/captured_log_sink.hpp>
#include <pelm/testing/fixed_identity.hpp>
#include <pelm/testing/memory_key_value_store.hpp>
#include <pelm/testing/scripted_beacon_vendor.hpp>
#include <pelm/testing/scripted_device_status.hpp>
#include <pelm/testing/virtual_loop.hpp>

namespace pelm::testing {

/// 2016-07-16T17:20:30.450Z, the instant tests start at.
inline const Date kStart{std::chrono::milliseconds{1'468'689'630'450}};

struct TestPlatformOptions {
    std::optional<std::string> vendorId = "4F1D2C3B-0000-4000-8000-00000000AB01";
    /// Trusted besides the system's certificates; a real curl transport is made either way.
    std::optional<std::filesystem::path> caFile;
    std::chrono::milliseconds timeout{std::chrono::seconds{10}};
};

/// A platform of in-memory parts on a virtual-time main queue, with the real HTTPS transport, installed for
/// the life of the object.
struct TestPlatform {
    std::shared_ptr<testing::VirtualLoop> loop = std::make_shared<testing::VirtualLoop>(kStart);
    std::shared_ptr<testing::MemoryKeyValueStore> store = std::make_shared<testing::MemoryKeyValueStore>();
    std::shared_ptr<testing::CapturedLogSink> log = std::make_shared<testing::CapturedLogSink>();
    std::shared_ptr<testing::FixedIdentity> identity;
    std::shared_ptr<platform::CurlTransport> http;
    std::shared_ptr<testing::ScriptedBeaconVendor> vendor = std::make_shared<testing::ScriptedBeaconVendor>();
    std::shared_ptr<testing::ScriptedReachability> reachability =
        std::make_shared<testing::ScriptedReachability>();
    std::shared_ptr<testing::ScriptedLocation> location = std::make_shared<testing::ScriptedLocation>();
    std::shared_ptr<testing::ScriptedBluetooth> bluetooth = std::make_shared<testing::ScriptedBluetooth>();
    std::shared_ptr<platform::Platform> services;

    explicit TestPlatform(TestPlatformOptions options = {}) {
        identity = std::make_shared<testing::FixedIdentity>(options.vendorId, "2.4.1", "241");
        platform::CurlTransportOptions httpOptions;
        httpOptions.extraCABundle = options.caFile;
        httpOptions.timeout = options.timeout;
        httpOptions.connectTimeout = std::min(options.timeout, httpOptions.connectTimeout);
        http = std::make_shared<platform::CurlTransport>(loop, httpOptions);
        services = std::make_shared<platform::Platform>();
        services->mainQueue = loop;
        services->store = store;
        services->identity = identity;
        services->log = log;
        services->http = http;
        services->beaconVendor = vendor;
        services->reachability = reachability;
        services->location = location;
        services->bluetooth = bluetooth;
        platform::install(services);
    }
    explicit TestPlatform(std::optional<std::string> vendorId)
        : TestPlatform(withVendor(std::move(vendorId))) {}
    ~TestPlatform() {
        // A test may have put another platform in place already; leave that one alone.
        if (platform::current() == services) platform::install(nullptr);
        services.reset();
        // Calls still in flight end now, and their completions run before the loop goes.
        http.reset();
        loop->runUntilIdle();
    }

    std::vector<std::string> lines() const { return log->lines(); }

  private:
    static TestPlatformOptions withVendor(std::optional<std::string> vendorId) {
        TestPlatformOptions options;
        options.vendorId = std::move(vendorId);
        return options;
    }
};

}  // namespace pelm::testing
