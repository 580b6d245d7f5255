#pragma once

// A platform of in-memory parts for the fuzzers: no thread, no file, no network, and a log that keeps
// nothing, so a long run costs no memory.
#include <pelm/platform/platform.hpp>
#include <pelm/testing/fixed_identity.hpp>
#include <pelm/testing/memory_key_value_store.hpp>
#include <pelm/testing/virtual_loop.hpp>

namespace pelm::fuzzing {

class DiscardingLog final : public platform::LogSink {
  public:
    void write(std::string_view) override {}
};

inline void installPlatform() {
    static const bool installed = [] {
        auto services = std::make_shared<platform::Platform>();
        services->mainQueue = std::make_shared<testing::VirtualLoop>();
        services->store = std::make_shared<testing::MemoryKeyValueStore>();
        services->identity = std::make_shared<testing::FixedIdentity>(std::nullopt, "", "");
        services->log = std::make_shared<DiscardingLog>();
        platform::install(services);
        return true;
    }();
    (void)installed;
}

}  // namespace pelm::fuzzing
