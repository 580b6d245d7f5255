#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "pelm_server/content_store.hpp"
#include "pelm_server/request_handler.hpp"

namespace pelm::server {

/// Whole answers to the lookups phones repeat (an app's configuration, a beacon's content), by request
/// target, made once and sent as they are: the event loop answers a repeated lookup without parsing, querying
/// or serialising anything. An answer is kept no longer than the oldest data it was made of would be kept by
/// the store, and is served past that, as the store's data is, only while the database fails.
class AnswerCache {
  public:
    AnswerCache(const ContentStore& store, std::chrono::milliseconds lifetime)
        : store_(store), lifetime_(lifetime) {}

    /// The kept answer to `target`, if it may still be served.
    std::optional<Reply> find(std::string_view target) const;
    /// Keeps `reply` to `target`, made of data read at `readAt` under the store's `generation`.
    void keep(std::string_view target, const Reply& reply, ContentStore::ReadAt readAt,
              std::uint64_t generation);

    /// Bounds, since lookups of tokens and beacons that have nothing are kept too: past either, the cache
    /// starts again empty.
    static constexpr std::size_t kMaxEntries = 10000;
    static constexpr std::size_t kMaxBytes = 32 * 1024 * 1024;

  private:
    struct Entry {
        Reply reply;
        ContentStore::ReadAt readAt;
        std::uint64_t generation = 0;
    };
    // Looked up by the target's view, without making a string of it.
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    };

    bool servable(const Entry& entry, ContentStore::ReadAt now) const;

    const ContentStore& store_;
    std::chrono::milliseconds lifetime_;
    mutable std::shared_mutex mutex_;
    std::unordered_map<std::string, Entry, Hash, std::equal_to<>> entries_;
    std::size_t bytes_ = 0;
};

}  // namespace pelm::server
