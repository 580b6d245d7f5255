#pragma once

#include <pelm/export.hpp>

#include <pelm/model/date.hpp>

namespace pelm::platform {

/// Where the library's "now" comes from. In virtual time it moves only when advanced.
class PELM_EXPORT Clock {
  public:
    virtual ~Clock() = default;
    /// The current instant.
    virtual Date now() const = 0;
};

}  // namespace pelm::platform
