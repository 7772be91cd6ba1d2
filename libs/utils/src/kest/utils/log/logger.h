#pragma once

#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "level.h"
#include "rate_limiter.h"
#include "settings.h"

namespace kest::utils::log {

/**
 * The process logger: one sink (a file or standard error) with a level, and a rate limiter
 * against floods of identical lines. Thread-safe; lines are written whole, and a record is always
 * one line: control characters in it are written escaped, so that text from a client can never
 * forge a line of its own.
 */
class Logger
{
public:
    using Observer =
        std::function<void(Level level, const std::string& tag, const std::string& message)>;

    static Logger& instance();

    /** Applies the first logger of the list. A file that cannot be opened falls back to stderr. */
    void configure(const Settings& settings);

    bool isEnabled(Level level) const
    {
        return level != Level::none &&
               (static_cast<int>(level) <= m_level.load(std::memory_order_relaxed) ||
                m_observerCount.load(std::memory_order_relaxed) > 0);
    }

    Level level() const { return static_cast<Level>(m_level.load()); }
    void setLevel(Level level) { m_level = static_cast<int>(level); }

    void write(Level level, const std::string& tag, const std::string& message);

    /**
     * `text` with line breaks and other control characters written as escapes: "\r", "\n",
     * "\t", "\x1b", and "\u0085", "\u2028", "\u2029" for the Unicode line breaks. Other text,
     * UTF-8 included, is kept as it is.
     */
    static std::string escapeControlCharacters(std::string_view text);

    /** Observers see every line at any level, unescaped and before rate limiting. For tests and
     * diagnostics. */
    int addObserver(Observer observer);
    void removeObserver(int id);

    ~Logger();

private:
    Logger() = default;

    std::atomic<int> m_level{static_cast<int>(Level::info)};
    std::atomic<int> m_observerCount{0};
    // Recursive, so that an observer may log: observers run under the lock, so that once
    // removeObserver() returns the observer is never called again.
    std::recursive_mutex m_mutex;
    std::FILE* m_file = nullptr;
    RateLimiter m_rateLimiter;
    std::map<int, Observer> m_observers;
    int m_nextObserverId = 1;
};

}  // namespace kest::utils::log
