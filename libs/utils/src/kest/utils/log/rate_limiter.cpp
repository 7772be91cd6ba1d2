#include "rate_limiter.h"

#include <functional>

namespace kest::utils::log {

namespace {
constexpr std::size_t kMaxTrackedLines = 4096;
}

RateLimiter::RateLimiter(std::size_t maxPerWindow, std::chrono::milliseconds window)
    : m_maxPerWindow(maxPerWindow), m_window(window)
{}

RateLimiter::Verdict RateLimiter::check(std::string_view line,
                                        std::chrono::steady_clock::time_point now)
{
    pruneIfLarge(now);
    auto& entry = m_entries[std::hash<std::string_view>()(line)];
    if (entry.count == 0 || now - entry.windowStart >= m_window) {
        entry.windowStart = now;
        entry.count = 0;
    }
    ++entry.count;
    if (entry.count <= m_maxPerWindow)
        return Verdict::write;
    if (entry.count == m_maxPerWindow + 1)
        return Verdict::writeTooMany;
    return Verdict::drop;
}

void RateLimiter::pruneIfLarge(std::chrono::steady_clock::time_point now)
{
    // Lines that are all different must not grow the table without bound. Yet a flood of them
    // must not make the table forget a line that repeats, or its burst would be written again:
    // lines seen once in their window go first, and only then everything.
    if (m_entries.size() < kMaxTrackedLines)
        return;
    std::erase_if(m_entries, [&](const auto& item) {
        return now - item.second.windowStart >= m_window || item.second.count <= 1;
    });
    if (m_entries.size() >= kMaxTrackedLines)
        m_entries.clear();
}

}  // namespace kest::utils::log
