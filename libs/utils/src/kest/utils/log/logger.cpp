#include "logger.h"

#include <chrono>
#include <ctime>
#include <thread>

namespace kest::utils::log {

Logger& Logger::instance()
{
    static Logger logger;
    return logger;
}

Logger::~Logger()
{
    if (m_file)
        std::fclose(m_file);
}

void Logger::configure(const Settings& settings)
{
    const LoggerSettings logger =
        settings.loggers.empty() ? LoggerSettings{} : settings.loggers.front();
    std::lock_guard lock(m_mutex);
    if (m_file) {
        std::fclose(m_file);
        m_file = nullptr;
    }
    if (!logger.file.empty()) {
        m_file = std::fopen(logger.file.c_str(), "a");
        if (!m_file)
            std::fprintf(stderr, "Cannot open log file %s, logging to stderr\n",
                         logger.file.c_str());
    }
    m_level = static_cast<int>(logger.level);
}

void Logger::write(Level level, const std::string& tag, const std::string& message)
{
    const auto now = std::chrono::system_clock::now();
    std::lock_guard lock(m_mutex);
    for (const auto& [id, observer] : m_observers)
        observer(level, tag, message);
    if (level == Level::none || static_cast<int>(level) > m_level.load())
        return;

    const std::string line = tag + ": " + message;
    const auto verdict = m_rateLimiter.check(line, std::chrono::steady_clock::now());
    if (verdict == RateLimiter::Verdict::drop)
        return;

    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char stamp[40];
    std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &tm);

    std::FILE* out = m_file ? m_file : stderr;
    std::fprintf(
        out, "%s.%03lld %zx %-7s %s%s\n", stamp, static_cast<long long>(millis),
        std::hash<std::thread::id>()(std::this_thread::get_id()) & 0xffffff,
        std::string(toString(level)).c_str(),
        verdict == RateLimiter::Verdict::writeTooMany ? RateLimiter::kTooManyPrefix.data() : "",
        line.c_str());
    std::fflush(out);
}

int Logger::addObserver(Observer observer)
{
    std::lock_guard lock(m_mutex);
    const int id = m_nextObserverId++;
    m_observers.emplace(id, std::move(observer));
    ++m_observerCount;
    return id;
}

void Logger::removeObserver(int id)
{
    std::lock_guard lock(m_mutex);
    if (m_observers.erase(id))
        --m_observerCount;
}

}  // namespace kest::utils::log
