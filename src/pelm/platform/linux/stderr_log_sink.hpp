#pragma once

#include <string>

#include <pelm/platform/log_sink.hpp>

namespace pelm::platform {

/// Writes "2026-11-22 19:43:05.123 app[pid:tid] line" to standard error, one write per line so lines
/// from different threads never interleave; optionally also to syslog.
class StderrLogSink final : public LogSink {
  public:
    StderrLogSink(std::string processName, bool alsoSyslog);
    void write(std::string_view line) override;

  private:
    std::string processName_;
    bool syslog_;
};

}  // namespace pelm::platform
