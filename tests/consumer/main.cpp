#include <pelm/pelm.hpp>

#include <iostream>

int main() {
    const auto beacon = pelm::Beacon::fromJSONText(R"({"uuid":"U","major":"1","minor":"2"})");
    std::cout << beacon->toJSONText() << " " << pelm::PelmConstants::sdkVersion << "\n";
    return beacon->major == "1" ? 0 : 1;
}
