#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <pelm/platform/log_sink.hpp>

namespace pelm::testing {

/// Keeps every line written, for tests and for the simulator's timeline.
/// \ingroup testing_kit
class CapturedLogSink final : public platform::LogSink {
  public:
    void write(std::string_view line) override {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
    }
    /// Every line written so far, in order.
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    /// Forgets the lines written so far.
    void clear() {
        std::lock_guard lock(mutex_);
        lines_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace pelm::testing
