#include "recording_data_distribution_storage.h"

#include <algorithm>

namespace kest::cloud::storage::metadatadb::test {

void RecordingDataDistributionStorage::saveInstanceLoad(const InstanseLoad& load)
{
    std::lock_guard lock(m_mutex);
    m_loads.push_back(load);
}

void RecordingDataDistributionStorage::appendDataAddresses(const std::vector<DataInfo>& data,
                                                           const std::string& host,
                                                           MoveOnlyFunc<void(AppendResult)> handler)
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

void RecordingDataDistributionStorage::getDataAddresses(
    const std::string& host, const std::vector<std::string>& deviceIds,
    MoveOnlyFunc<void(bool, std::vector<DataInfo>)> handler)
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

void RecordingDataDistributionStorage::replaceDataAddresses(const std::string& deviceId,
                                                            const std::string& host,
                                                            const std::vector<ZuTimePeriod>& add,
                                                            const std::vector<ZuTimePeriod>& remove,
                                                            MoveOnlyFunc<void(bool)> handler)
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

void RecordingDataDistributionStorage::holdWrites(bool hold)
{
    std::lock_guard lock(m_mutex);
    m_holdWrites = hold;
}

void RecordingDataDistributionStorage::holdReads(bool hold)
{
    std::lock_guard lock(m_mutex);
    m_holdReads = hold;
}

std::size_t RecordingDataDistributionStorage::heldAppends() const
{
    std::lock_guard lock(m_mutex);
    return m_heldAppends.size();
}

std::vector<DataInfo> RecordingDataDistributionStorage::heldItems() const
{
    std::lock_guard lock(m_mutex);
    return m_heldAppends.front().items;
}

void RecordingDataDistributionStorage::completeAppend(std::size_t failed, bool refused)
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

void RecordingDataDistributionStorage::completeRead(bool ok)
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

std::vector<std::vector<DataInfo>> RecordingDataDistributionStorage::appends() const
{
    std::lock_guard lock(m_mutex);
    return m_appends;
}

std::size_t RecordingDataDistributionStorage::appendedSpans() const
{
    std::lock_guard lock(m_mutex);
    std::size_t count = 0;
    for (const auto& items : m_appends)
        count += items.size();
    return count;
}

std::vector<RecordingDataDistributionStorage::Span> RecordingDataDistributionStorage::document(
    const std::string& deviceId) const
{
    std::lock_guard lock(m_mutex);
    const auto it = m_documents.find(deviceId);
    return it == m_documents.end() ? std::vector<Span>() : it->second;
}

void RecordingDataDistributionStorage::setDocument(const std::string& deviceId,
                                                   std::vector<Span> spans)
{
    std::lock_guard lock(m_mutex);
    m_documents[deviceId] = std::move(spans);
}

bool RecordingDataDistributionStorage::finds(const std::string& deviceId,
                                             const ZuTimePeriod& period,
                                             const std::string& node) const
{
    return std::ranges::any_of(document(deviceId), [&](const Span& span) {
        return span.node == node && span.period.intersects(period);
    });
}

int RecordingDataDistributionStorage::reads() const
{
    std::lock_guard lock(m_mutex);
    return m_reads;
}

std::vector<std::vector<std::string>> RecordingDataDistributionStorage::readDevices() const
{
    std::lock_guard lock(m_mutex);
    return m_readDevices;
}

int RecordingDataDistributionStorage::replaces() const
{
    std::lock_guard lock(m_mutex);
    return m_replaces;
}

std::vector<InstanseLoad> RecordingDataDistributionStorage::loads() const
{
    std::lock_guard lock(m_mutex);
    return m_loads;
}

void RecordingDataDistributionStorage::append(const std::vector<DataInfo>& items,
                                              const std::string& host)
{
    for (const auto& item : items)
        m_documents[item.deviceId].push_back({item.timePeriod, host});
}

std::vector<DataInfo> RecordingDataDistributionStorage::spansOf(
    const std::string& host, const std::vector<std::string>& deviceIds) const
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

}  // namespace kest::cloud::storage::metadatadb::test
