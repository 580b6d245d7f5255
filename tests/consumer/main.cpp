#include <pelm/pelm.hpp>

#include <iostream>
#include <string>

// A host built against the installed tree: the records, the library's version as loaded against the
// headers', and a status's name.
int main() {
    const auto beacon = pelm::Beacon::fromJSONText(R"({"uuid":"U","major":"1","minor":"2"})");
    const std::string headers = std::to_string(PELM_VERSION_MAJOR) + "." +
                                std::to_string(PELM_VERSION_MINOR) + "." + std::to_string(PELM_VERSION_PATCH);
    std::cout << beacon->toJSONText() << " " << pelm::version() << " "
              << pelm::to_string(pelm::BluetoothStatus::On) << "\n";
    return beacon->major == "1" && headers == pelm::version() ? 0 : 1;
}
