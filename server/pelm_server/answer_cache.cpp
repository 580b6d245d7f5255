#include "pelm_server/answer_cache.hpp"

#include <mutex>

namespace pelm::server {

bool AnswerCache::servable(const Entry& entry, ContentStore::ReadAt now) const {
    if (entry.generation != store_.generation()) return false;
    const auto age = now - entry.readAt;
    return age < lifetime_ || (age < ContentStore::kLongestStale && store_.failing());
}

std::optional<Reply> AnswerCache::find(std::string_view target) const {
    const auto now = std::chrono::steady_clock::now();
    std::shared_lock lock(mutex_);
    const auto found = entries_.find(target);
    if (found == entries_.end() || !servable(found->second, now)) return std::nullopt;
    return found->second.reply;
}

void AnswerCache::keep(std::string_view target, const Reply& reply, ContentStore::ReadAt readAt,
                       std::uint64_t generation) {
    Entry entry{reply, readAt, generation};
    if (!servable(entry, std::chrono::steady_clock::now())) return;
    const auto size = target.size() + reply.text().size();
    std::unique_lock lock(mutex_);
    if (entries_.size() >= kMaxEntries || bytes_ + size > kMaxBytes) {
        entries_.clear();
        bytes_ = 0;
    }
    const auto [where, added] = entries_.try_emplace(std::string(target), std::move(entry));
    if (added) {
        bytes_ += size;
    } else if (where->second.readAt <= readAt) {
        bytes_ = bytes_ - where->second.reply.text().size() + reply.text().size();
        where->second = std::move(entry);
    }
}

}  // namespace pelm::server
