#pragma once

#include <pelm/export.hpp>

#include <string_view>

namespace pelm::platform {

/// The system log. Each call writes one whole line; the sink adds its own time stamp and process prefix.
class PELM_EXPORT LogSink {
  public:
    virtual ~LogSink() = default;
    /// Writes one line, as it is.
    virtual void write(std::string_view line) = 0;
};

}  // namespace pelm::platform
