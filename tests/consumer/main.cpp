#include <pelm/pelm.hpp>

#include <iostream>
#include <string>

// A host built against the installed tree: the records it receives, the library's version as loaded against
// the headers', and a status's name.
int main() {
    const auto uuid = pelm::platform::ProximityUUID::parse("f7826da6-4fa2-4e98-8024-bc5b71e0893e");
    if (!uuid) return 1;
    pelm::platform::BeaconRegion region;
    region.proximityUUID = *uuid;
    region.major = 1;
    pelm::Content content;
    content.extraInfo["shelf"] = 2;
    const std::string headers = std::to_string(PELM_VERSION_MAJOR) + "." +
                                std::to_string(PELM_VERSION_MINOR) + "." + std::to_string(PELM_VERSION_PATCH);
    std::cout << region.proximityUUID.uuidString() << " " << content.extraInfo.dump() << " "
              << pelm::version() << " " << pelm::to_string(pelm::BluetoothStatus::On) << "\n";
    return region.major == 1 && headers == pelm::version() ? 0 : 1;
}
