#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kest::utils::log {

/**
 * Decides whether a log line is written, so that a burst of identical lines cannot flood the
 * log: within one window, the first `maxPerWindow` copies pass, the next one is replaced by a
 * single "TOO MANY SIMILAR MESSAGES:" line, and the rest are dropped until the window ends.
 * Not thread-safe: the logger calls it under its own lock.
 */
class RateLimiter
{
public:
    enum class Verdict
    {
        write,
        writeTooMany,
        drop
    };

    static constexpr std::size_t kDefaultMaxPerWindow = 10;
    static constexpr std::chrono::milliseconds kDefaultWindow{1000};

    explicit RateLimiter(std::size_t maxPerWindow = kDefaultMaxPerWindow,
                         std::chrono::milliseconds window = kDefaultWindow);

    Verdict check(std::string_view line, std::chrono::steady_clock::time_point now);

    /** The prefix of the line that stands in for dropped repeats. */
    static constexpr std::string_view kTooManyPrefix = "TOO MANY SIMILAR MESSAGES: ";

private:
    struct Entry
    {
        std::chrono::steady_clock::time_point windowStart;
        std::size_t count = 0;
    };

    void pruneIfLarge(std::chrono::steady_clock::time_point now);

    std::size_t m_maxPerWindow;
    std::chrono::milliseconds m_window;
    std::unordered_map<std::uint64_t, Entry> m_entries;
};

}  // namespace kest::utils::log
