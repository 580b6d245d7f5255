#pragma once

#include <atomic>

#include <pelm/platform/clock.hpp>

namespace pelm::platform {

/// A clock that moves only when told to.
class ManualClock final : public Clock {
public:
    explicit ManualClock(Date start) : now_(start) {}
    Date now() const override { return now_.load(); }
    void set(Date when) { now_.store(when); }
    void advance(std::chrono::milliseconds by) { now_.store(now_.load() + by); }

private:
    std::atomic<Date> now_;
};

}  // namespace pelm::platform
