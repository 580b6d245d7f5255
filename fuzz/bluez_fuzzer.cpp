// Any manufacturer data BlueZ could report (bytes by company): the rebuilt advertising data parses, and an
// iBeacon payload under Apple's company is found in it.
#include <pelm/platform/ble/ibeacon_advertisement.hpp>
#include <pelm/platform/linux/bluez_advertisements.hpp>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The input is a list of (company: 2 bytes, length: 1 byte, bytes).
    std::map<std::uint16_t, std::vector<std::uint8_t>> byCompany;
    std::size_t at = 0;
    while (at + 3 <= size) {
        const auto company = static_cast<std::uint16_t>(data[at] | data[at + 1] << 8);
        const std::size_t length = std::min<std::size_t>(data[at + 2], size - at - 3);
        byCompany[company].assign(data + at + 3, data + at + 3 + length);
        at += 3 + length;
    }
    const auto advertising = pelm::platform::advertisingDataOf(byCompany);
    const auto frame = pelm::platform::parseIBeacon(advertising);
    const auto apple = byCompany.find(0x004C);
    const bool beacon = apple != byCompany.end() && apple->second.size() >= 23 && apple->second[0] == 0x02 &&
                        apple->second[1] == 0x15 && apple->second.size() <= 252;
    if (beacon && !frame) std::abort();
    return 0;
}
