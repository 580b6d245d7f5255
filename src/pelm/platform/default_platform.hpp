#pragma once

#include <memory>

#include <pelm/platform/platform.hpp>

namespace pelm::platform {

/// The platform used when a host installs none. Which one that is, the build decides: it compiles exactly one
/// file that defines this (on Linux, linux/default_platform.cpp).
std::shared_ptr<const Platform> makeDefaultPlatform();

}  // namespace pelm::platform
