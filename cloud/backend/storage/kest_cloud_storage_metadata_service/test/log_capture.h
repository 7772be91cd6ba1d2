#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <kest/utils/log/logger.h>

namespace kest::cloud::storage::metadatadb::test {

/** Collects every log line written while it exists, at any level. */
class LogCapture
{
public:
    using Level = kest::utils::log::Level;

    LogCapture()
    {
        m_id = kest::utils::log::Logger::instance().addObserver(
            [this](Level level, const std::string&, const std::string& message) {
                std::lock_guard lock(m_mutex);
                m_lines.emplace_back(level, message);
            });
    }
    ~LogCapture() { kest::utils::log::Logger::instance().removeObserver(m_id); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    bool contains(const std::string& text) const { return count(text) > 0; }

    /** Lines that contain `text`. */
    int count(const std::string& text) const
    {
        std::lock_guard lock(m_mutex);
        int n = 0;
        for (const auto& [level, line] : m_lines)
            n += line.find(text) != std::string::npos ? 1 : 0;
        return n;
    }

    /** The lines of `level` that contain `text`. */
    std::vector<std::string> find(Level level, const std::string& text) const
    {
        std::lock_guard lock(m_mutex);
        std::vector<std::string> found;
        for (const auto& [lineLevel, line] : m_lines) {
            if (lineLevel == level && line.find(text) != std::string::npos)
                found.push_back(line);
        }
        return found;
    }

    bool containsLine(const std::string& line) const
    {
        std::lock_guard lock(m_mutex);
        for (const auto& [level, l] : m_lines) {
            if (l == line)
                return true;
        }
        return false;
    }

private:
    int m_id = 0;
    mutable std::mutex m_mutex;
    std::vector<std::pair<Level, std::string>> m_lines;
};

}  // namespace kest::cloud::storage::metadatadb::test
