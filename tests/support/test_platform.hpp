#pragma once

#include <memory>
#include <string>
#include <vector>

#include <pelm/platform/platform.hpp>
#include <pelm/platform/sim/captured_log_sink.hpp>
#include <pelm/platform/sim/fixed_identity.hpp>
#include <pelm/platform/sim/manual_clock.hpp>
#include <pelm/platform/sim/memory_key_value_store.hpp>

namespace pelm::testing {

/// A platform of in-memory parts, installed for the life of the object.
struct TestPlatform {
    std::shared_ptr<platform::ManualClock> clock =
        std::make_shared<platform::ManualClock>(Date{std::chrono::milliseconds{1'468'689'630'450}});
    std::shared_ptr<platform::MemoryKeyValueStore> store = std::make_shared<platform::MemoryKeyValueStore>();
    std::shared_ptr<platform::CapturedLogSink> log = std::make_shared<platform::CapturedLogSink>();
    std::shared_ptr<platform::FixedIdentity> identity;

    explicit TestPlatform(std::optional<std::string> vendorId = "4F1D2C3B-0000-4000-8000-00000000AB01") {
        identity = std::make_shared<platform::FixedIdentity>(std::move(vendorId), "2.4.1", "241");
        auto services = std::make_shared<platform::Platform>();
        services->clock = clock;
        services->store = store;
        services->identity = identity;
        services->log = log;
        platform::install(services);
    }
    ~TestPlatform() { platform::install(nullptr); }

    std::vector<std::string> lines() const { return log->lines(); }
};

}  // namespace pelm::testing
