#pragma once

// A data-distribution storage that keeps what the cluster components hand it, and a log
// observer, for tests of those components.

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <kest/utils/log/logger.h>

#include "null_data_distribution_storage.h"

namespace kest::cloud::storage::metadatadb::test {

class RecordingDataDistributionStorage : public NullDataDistributionStorage
{
public:
    struct Save
    {
        std::vector<DataInfo> items;
        std::string host;
        MoveOnlyFunc<void(std::vector<DataInfo>)> handler;
    };

    void saveDataAddress(const std::vector<DataInfo>& data, const std::string& host,
                         MoveOnlyFunc<void(std::vector<DataInfo>)> handler) override
    {
        std::lock_guard lock(m_mutex);
        m_saves.push_back({data, host, std::move(handler)});
    }
    void saveInstanceLoad(const InstanseLoad& load) override
    {
        std::lock_guard lock(m_mutex);
        m_loads.push_back(load);
    }
    void saveInstanceLoadSync(const InstanseLoad& load) override { saveInstanceLoad(load); }

    std::size_t saveCount() const
    {
        std::lock_guard lock(m_mutex);
        return m_saves.size();
    }
    /** The items of save `index`. */
    std::vector<DataInfo> items(std::size_t index) const
    {
        std::lock_guard lock(m_mutex);
        return m_saves.at(index).items;
    }
    /** Plays the failure of save `index`: its handler gets the whole batch. */
    void fail(std::size_t index)
    {
        MoveOnlyFunc<void(std::vector<DataInfo>)> handler;
        std::vector<DataInfo> items;
        {
            std::lock_guard lock(m_mutex);
            handler = std::move(m_saves.at(index).handler);
            items = m_saves.at(index).items;
        }
        handler(std::move(items));
    }
    std::vector<InstanseLoad> loads() const
    {
        std::lock_guard lock(m_mutex);
        return m_loads;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Save> m_saves;
    std::vector<InstanseLoad> m_loads;
};

/** The log lines written while it lives, with their levels. */
class LogLines
{
public:
    LogLines()
    {
        m_id = kest::utils::log::Logger::instance().addObserver(
            [this](kest::utils::log::Level level, const std::string&, const std::string& text) {
                std::lock_guard lock(m_mutex);
                m_lines.push_back({level, text});
            });
    }
    ~LogLines() { kest::utils::log::Logger::instance().removeObserver(m_id); }

    /** The lines of `level` that contain `text`. */
    std::vector<std::string> find(kest::utils::log::Level level, const std::string& text) const
    {
        std::lock_guard lock(m_mutex);
        std::vector<std::string> found;
        for (const auto& [lineLevel, line] : m_lines) {
            if (lineLevel == level && line.find(text) != std::string::npos)
                found.push_back(line);
        }
        return found;
    }

private:
    int m_id = 0;
    mutable std::mutex m_mutex;
    std::vector<std::pair<kest::utils::log::Level, std::string>> m_lines;
};

/** Polls `condition` until it holds or `timeout` passes. */
inline bool waitFor(const std::function<bool()>& condition,
                    std::chrono::milliseconds timeout = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace kest::cloud::storage::metadatadb::test
