#include <pelm/platform/platform.hpp>

#include <atomic>
#include <mutex>

#include <pelm/platform/default_platform.hpp>

namespace pelm::platform {
namespace {

std::atomic<std::shared_ptr<const Platform>>& slot() {
    static std::atomic<std::shared_ptr<const Platform>> installed;
    return installed;
}

}  // namespace

void install(std::shared_ptr<const Platform> platform) {
    slot().store(std::move(platform));
}

std::shared_ptr<const Platform> current() {
    if (auto platform = slot().load()) return platform;
    static std::mutex defaultMutex;
    std::lock_guard lock(defaultMutex);
    if (auto platform = slot().load()) return platform;
    auto fallback = makeDefaultPlatform();
    slot().store(fallback);
    return fallback;
}

}  // namespace pelm::platform
