// Any bytes handed to a record's reader give a record; writing it and reading that back gives the same JSON.
#include <pelm/model/app_config.hpp>
#include <pelm/model/beacon.hpp>
#include <pelm/model/content.hpp>
#include <pelm/model/record_json.hpp>
#include <pelm/model/session.hpp>
#include <pelm/model/session_log.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/testing/captured_log_sink.hpp>
#include <pelm/testing/fixed_identity.hpp>
#include <pelm/testing/memory_key_value_store.hpp>
#include <pelm/testing/virtual_loop.hpp>

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

void installPlatform() {
    auto services = std::make_shared<pelm::platform::Platform>();
    services->mainQueue = std::make_shared<pelm::testing::VirtualLoop>();
    services->store = std::make_shared<pelm::testing::MemoryKeyValueStore>();
    services->identity = std::make_shared<pelm::testing::FixedIdentity>(std::nullopt, "", "");
    services->log = std::make_shared<pelm::testing::CapturedLogSink>();
    pelm::platform::install(services);
}

template <class Record>
void roundTrip(std::string_view text) {
    const auto record = pelm::fromJSONText<Record>(text);
    if (!record) std::abort();
    const auto written = toJSON(*record);
    const auto again = toJSON(*pelm::fromJSON<Record>(written));
    if (again != written) std::abort();
    (void)toJSONText(*record);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool installed = (installPlatform(), true);
    (void)installed;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    roundTrip<pelm::Beacon>(text);
    roundTrip<pelm::Session>(text);
    roundTrip<pelm::SessionLog>(text);
    roundTrip<pelm::Content>(text);
    roundTrip<pelm::AppConfig>(text);
    return 0;
}
