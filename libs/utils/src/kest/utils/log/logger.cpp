#include "logger.h"

#include <algorithm>
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

    const std::string line = escapeControlCharacters(tag + ": " + message);
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

std::string Logger::escapeControlCharacters(std::string_view text)
{
    static constexpr char kHex[] = "0123456789abcdef";
    const auto isPlain = [](unsigned char c) {
        return c >= 0x20 && c != 0x7f && c != 0xc2 && c != 0xe2;
    };
    if (std::all_of(text.begin(), text.end(), isPlain))
        return std::string(text);

    std::string out;
    out.reserve(text.size() + 16);
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (isPlain(c)) {
            out.push_back(static_cast<char>(c));
            continue;
        }
        const auto next = [&](std::size_t offset) {
            return i + offset < text.size() ? static_cast<unsigned char>(text[i + offset]) : 0;
        };
        if (c == 0xc2 && next(1) >= 0x80 && next(1) <= 0x9f) {
            // The C1 controls in UTF-8; U+0085 is a line break to some readers.
            out.append("\\u00").push_back(kHex[next(1) >> 4]);
            out.push_back(kHex[next(1) & 0xf]);
            i += 1;
        } else if (c == 0xe2 && next(1) == 0x80 && (next(2) == 0xa8 || next(2) == 0xa9)) {
            out.append(next(2) == 0xa8 ? "\\u2028" : "\\u2029");
            i += 2;
        } else if (c == '\r') {
            out.append("\\r");
        } else if (c == '\n') {
            out.append("\\n");
        } else if (c == '\t') {
            out.append("\\t");
        } else if (c < 0x20 || c == 0x7f) {
            out.append("\\x").push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0xf]);
        } else {
            out.push_back(static_cast<char>(c));  //< Any other UTF-8 that starts so.
        }
    }
    return out;
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
