#pragma once

#include <map>
#include <mutex>

#include <pelm/platform/key_value_store.hpp>

namespace pelm::testing {

/// A store that lives as long as the object: for tests and simulations.
/// \ingroup testing_kit
class MemoryKeyValueStore final : public platform::KeyValueStore {
  public:
    std::optional<std::string> get(std::string_view key) const override {
        std::lock_guard lock(mutex_);
        const auto found = values_.find(key);
        if (found == values_.end()) return std::nullopt;
        return found->second;
    }
    void set(std::string_view key, std::string_view value) override {
        std::lock_guard lock(mutex_);
        values_.insert_or_assign(std::string(key), std::string(value));
    }
    void remove(std::string_view key) override {
        std::lock_guard lock(mutex_);
        if (const auto found = values_.find(key); found != values_.end()) values_.erase(found);
    }
    /// Whether a value is stored under `key`.
    bool contains(std::string_view key) const {
        std::lock_guard lock(mutex_);
        return values_.find(key) != values_.end();
    }

  private:
    mutable std::mutex mutex_;
    std::map<std::string, std::string, std::less<>> values_;
};

}  // namespace pelm::testing
