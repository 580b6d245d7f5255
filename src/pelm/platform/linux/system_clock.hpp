#pragma once

#include <pelm/platform/clock.hpp>

namespace pelm::platform {

/// The wall clock.
class SystemClock final : public Clock {
public:
    Date now() const override { return std::chrono::system_clock::now(); }
};

}  // namespace pelm::platform
