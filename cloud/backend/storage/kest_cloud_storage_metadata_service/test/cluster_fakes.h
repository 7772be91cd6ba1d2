#pragma once

// A data-distribution storage that keeps what the cluster components hand it, and a log
// observer, for tests of those components.

#include <algorithm>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <kest/utils/log/logger.h>

#include "null_data_distribution_storage.h"

namespace kest::cloud::storage::metadatadb::test {

/**
 * Keeps what the cluster components hand it: loads, and data addresses in documents per device
 * that it changes as MongoDB would. Writes and reads of data addresses complete at once, or, once
 * held, when the test completes them.
 */
class RecordingDataDistributionStorage : public NullDataDistributionStorage
{
public:
    struct Span
    {
        ZuTimePeriod period;
        std::string node;

        friend bool operator==(const Span&, const Span&) = default;
    };

    void saveInstanceLoad(const InstanseLoad& load) override
    {
        std::lock_guard lock(m_mutex);
        m_loads.push_back(load);
    }
    void saveInstanceLoadSync(const InstanseLoad& load) override { saveInstanceLoad(load); }

    void appendDataAddresses(const std::vector<DataInfo>& data, const std::string& host,
                             MoveOnlyFunc<void(AppendResult)> handler) override
    {
        {
            std::lock_guard lock(m_mutex);
            m_appends.push_back(data);
            if (m_holdWrites) {
                m_heldAppends.push_back({data, host, std::move(handler)});
                return;
            }
            append(data, host);
        }
        handler({});
    }

    void getDataAddresses(const std::string& host, const std::vector<std::string>& deviceIds,
                          MoveOnlyFunc<void(bool, std::vector<DataInfo>)> handler) override
    {
        std::vector<DataInfo> spans;
        {
            std::lock_guard lock(m_mutex);
            ++m_reads;
            m_readDevices.push_back(deviceIds);
            if (m_holdReads) {
                m_heldReads.push_back({host, deviceIds, std::move(handler)});
                return;
            }
            spans = spansOf(host, deviceIds);
        }
        handler(true, std::move(spans));
    }

    void replaceDataAddresses(const std::string& deviceId, const std::string& host,
                              const std::vector<ZuTimePeriod>& add,
                              const std::vector<ZuTimePeriod>& remove,
                              MoveOnlyFunc<void(bool)> handler) override
    {
        {
            std::lock_guard lock(m_mutex);
            ++m_replaces;
            auto& document = m_documents[deviceId];
            for (const auto& period : add)
                document.push_back({period, host});
            std::erase_if(document, [&](const Span& span) {
                return span.node == host && std::ranges::find(remove, span.period) != remove.end();
            });
        }
        handler(true);
    }

    /** From now on appends and reads wait for completeAppend() and completeRead(). */
    void holdWrites(bool hold = true)
    {
        std::lock_guard lock(m_mutex);
        m_holdWrites = hold;
    }
    void holdReads(bool hold = true)
    {
        std::lock_guard lock(m_mutex);
        m_holdReads = hold;
    }
    std::size_t heldAppends() const
    {
        std::lock_guard lock(m_mutex);
        return m_heldAppends.size();
    }
    /** The items of the oldest held append. */
    std::vector<DataInfo> heldItems() const
    {
        std::lock_guard lock(m_mutex);
        return m_heldAppends.front().items;
    }
    /**
     * Completes the oldest held append: its last `failed` items fail, the first of them refused
     * by the server when `refused`; the others are stored.
     */
    void completeAppend(std::size_t failed = 0, bool refused = false)
    {
        HeldAppend held;
        AppendResult result;
        {
            std::lock_guard lock(m_mutex);
            held = std::move(m_heldAppends.front());
            m_heldAppends.pop_front();
            const auto firstFailed = held.items.end() - static_cast<std::ptrdiff_t>(failed);
            append({held.items.begin(), firstFailed}, held.host);
            result.failed.assign(firstFailed, held.items.end());
            result.firstRefused = refused && failed > 0;
        }
        held.handler(std::move(result));
    }
    void completeRead(bool ok = true)
    {
        HeldRead held;
        std::vector<DataInfo> spans;
        {
            std::lock_guard lock(m_mutex);
            held = std::move(m_heldReads.front());
            m_heldReads.pop_front();
            if (ok)
                spans = spansOf(held.host, held.deviceIds);
        }
        held.handler(ok, std::move(spans));
    }

    /** Every append handed over so far, held or not. */
    std::vector<std::vector<DataInfo>> appends() const
    {
        std::lock_guard lock(m_mutex);
        return m_appends;
    }
    std::size_t appendedSpans() const
    {
        std::lock_guard lock(m_mutex);
        std::size_t count = 0;
        for (const auto& items : m_appends)
            count += items.size();
        return count;
    }
    std::vector<Span> document(const std::string& deviceId) const
    {
        std::lock_guard lock(m_mutex);
        const auto it = m_documents.find(deviceId);
        return it == m_documents.end() ? std::vector<Span>() : it->second;
    }
    void setDocument(const std::string& deviceId, std::vector<Span> spans)
    {
        std::lock_guard lock(m_mutex);
        m_documents[deviceId] = std::move(spans);
    }
    /** Whether a search for `period` names `node` for the device. */
    bool finds(const std::string& deviceId, const ZuTimePeriod& period,
               const std::string& node) const
    {
        return std::ranges::any_of(document(deviceId), [&](const Span& span) {
            return span.node == node && span.period.intersects(period);
        });
    }
    int reads() const
    {
        std::lock_guard lock(m_mutex);
        return m_reads;
    }
    /** The devices that each read named; empty: every device. */
    std::vector<std::vector<std::string>> readDevices() const
    {
        std::lock_guard lock(m_mutex);
        return m_readDevices;
    }
    int replaces() const
    {
        std::lock_guard lock(m_mutex);
        return m_replaces;
    }
    std::vector<InstanseLoad> loads() const
    {
        std::lock_guard lock(m_mutex);
        return m_loads;
    }

private:
    struct HeldAppend
    {
        std::vector<DataInfo> items;
        std::string host;
        MoveOnlyFunc<void(AppendResult)> handler;
    };
    struct HeldRead
    {
        std::string host;
        std::vector<std::string> deviceIds;
        MoveOnlyFunc<void(bool, std::vector<DataInfo>)> handler;
    };

    void append(const std::vector<DataInfo>& items, const std::string& host)
    {
        for (const auto& item : items)
            m_documents[item.deviceId].push_back({item.timePeriod, host});
    }
    std::vector<DataInfo> spansOf(const std::string& host,
                                  const std::vector<std::string>& deviceIds) const
    {
        std::vector<DataInfo> spans;
        for (const auto& [deviceId, document] : m_documents) {
            if (!deviceIds.empty() && std::ranges::find(deviceIds, deviceId) == deviceIds.end())
                continue;
            for (const auto& span : document) {
                if (span.node == host)
                    spans.push_back({deviceId, span.period});
            }
        }
        return spans;
    }

    mutable std::mutex m_mutex;
    std::vector<InstanseLoad> m_loads;
    std::map<std::string, std::vector<Span>> m_documents;
    std::vector<std::vector<DataInfo>> m_appends;
    bool m_holdWrites = false;
    bool m_holdReads = false;
    std::deque<HeldAppend> m_heldAppends;
    std::deque<HeldRead> m_heldReads;
    int m_reads = 0;
    std::vector<std::vector<std::string>> m_readDevices;
    int m_replaces = 0;
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
