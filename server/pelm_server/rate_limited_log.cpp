#include "pelm_server/rate_limited_log.hpp"

namespace pelm::server {

RateLimitedLog::RateLimitedLog(Sink sink, std::chrono::seconds interval, Clock clock)
    : sink_(std::move(sink)), interval_(interval), clock_(std::move(clock)) {}

void RateLimitedLog::write(const std::string& cause, const std::string& line) {
    std::lock_guard lock(mutex_);
    const auto now = clock_();
    auto [found, first] = causes_.try_emplace(cause);
    auto& counts = found->second;
    if (!first && now - counts.written < interval_) {
        ++counts.heldBack;
        return;
    }
    writeHeldBack(cause, counts);
    counts.written = now;
    sink_(line);
}

void RateLimitedLog::flush() {
    std::lock_guard lock(mutex_);
    for (auto& [cause, counts] : causes_) writeHeldBack(cause, counts);
}

void RateLimitedLog::writeHeldBack(const std::string& cause, Cause& counts) {
    if (counts.heldBack == 0) return;
    sink_(std::to_string(counts.heldBack) + " more " + (counts.heldBack == 1 ? "line" : "lines") +
          " like \"" + cause + "\" held back since the last one");
    counts.heldBack = 0;
}

}  // namespace pelm::server
