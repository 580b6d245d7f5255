// Any text either names no instant or names one that writes and reads back to itself, in any zone.
#include <pelm/model/json_date_transform.hpp>

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool zoned = (setenv("TZ", "Asia/Kathmandu", 1), tzset(), true);
    (void)zoned;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto date = pelm::dateFromText(text);
    if (!date) return 0;
    if (pelm::dateFromText(pelm::dateText(*date)) != date) std::abort();
    (void)pelm::dateDescription(*date);
    return 0;
}
