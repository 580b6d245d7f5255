#include <pelm/platform/default_platform.hpp>
#include <pelm/platform/linux/linux_platform.hpp>

namespace pelm::platform {

std::shared_ptr<const Platform> makeDefaultPlatform() {
    return makeLinuxPlatform(LinuxPlatformOptions{});
}

}  // namespace pelm::platform
