#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <kest/utils/log/logger.h>

namespace kest::cloud::storage::metadatadb::test {

/** Collects every log line written while it exists, at any level. */
class LogCapture
{
public:
    LogCapture()
    {
        m_id = kest::utils::log::Logger::instance().addObserver(
            [this](kest::utils::log::Level, const std::string&, const std::string& message) {
                std::lock_guard lock(m_mutex);
                m_lines.push_back(message);
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
        for (const auto& line : m_lines)
            n += line.find(text) != std::string::npos ? 1 : 0;
        return n;
    }

    bool containsLine(const std::string& line) const
    {
        std::lock_guard lock(m_mutex);
        for (const auto& l : m_lines) {
            if (l == line)
                return true;
        }
        return false;
    }

private:
    int m_id = 0;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

}  // namespace kest::cloud::storage::metadatadb::test
