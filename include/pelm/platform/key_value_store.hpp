#pragma once

#include <pelm/export.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace pelm::platform {

/// The host application's persistent key-value store. Safe to use from any thread;
/// a read that follows a write, on any thread, sees the written value.
class PELM_EXPORT KeyValueStore {
  public:
    virtual ~KeyValueStore() = default;
    /// The text stored under `key`; none when there is none.
    virtual std::optional<std::string> get(std::string_view key) const = 0;
    /// Stores `value` under `key`; false when it could not be stored.
    virtual void set(std::string_view key, std::string_view value) = 0;
    /// Removes what `key` holds.
    virtual void remove(std::string_view key) = 0;
};

}  // namespace pelm::platform
