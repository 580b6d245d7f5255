#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <pelm/platform/log_sink.hpp>

namespace pelm::platform {

/// Keeps every line written, for tests and for the simulator's timeline.
class CapturedLogSink final : public LogSink {
  public:
    void write(std::string_view line) override {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        lines_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace pelm::platform
