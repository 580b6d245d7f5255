// Any text as a server seed: it is loaded or refused whole with std::invalid_argument, and what is loaded
// can be looked up.
#include <pelm/model/json_text.hpp>

#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "pelm_server/content_store.hpp"
#include "pelm_server/store_factory.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto json = pelm::parseJSONText(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!json) return 0;
    const auto store = pelm::server::openContentStore(":memory:");
    try {
        store->seed(*json);
    } catch (const std::invalid_argument&) {
        if (!store->sessions().empty()) std::abort();
        return 0;
    }
    (void)store->appConfig("demo-token");
    (void)store->contentForBeacon("demo-token", "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "1", "1", "entry");
    (void)pelm::jsonText(store->sessions());
    return 0;
}
