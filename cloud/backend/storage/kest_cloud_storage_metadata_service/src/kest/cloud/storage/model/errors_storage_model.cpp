#include "errors_storage_model.h"

#include <algorithm>
#include <limits>
#include <mutex>
#include <thread>

namespace kest::cloud::storage::metadatadb {

namespace {

bool isSelected(const std::unordered_set<ZuUuid>& deviceIds, const ZuUuid& deviceId)
{
    return deviceIds.empty() || deviceIds.contains(deviceId);
}

bool endedBefore(const ZuTimePeriodList& periods, std::chrono::milliseconds timestamp)
{
    return !periods.empty() && periods.back().endTime() < timestamp;
}

ZuTimePeriod everythingBefore(std::chrono::milliseconds timestamp)
{
    return ZuTimePeriod(std::chrono::milliseconds(0), timestamp);
}

// An entry left without periods by the cut has no latest error; it sorts first.
std::int64_t sortKey(const DbErrorData& data)
{
    return data.timePeriod.empty() ? std::numeric_limits<std::int64_t>::min()
                                   : data.timePeriod.back().endTimeMs();
}

}  // namespace

void ErrorsStorageModel::saveErrors(kest::sql::DBResult /*result*/,
                                    std::unordered_map<ZuUuid, ZuTimePeriodList> errors)
{
    std::lock_guard lock(m_mutex);
    for (const auto& [deviceId, periods] : errors)
        ZuTimePeriodList::unionTimePeriods(m_errors[deviceId], periods);
}

std::vector<DbErrorData> ErrorsStorageModel::getErrors(const std::unordered_set<ZuUuid>& deviceIds,
                                                       std::chrono::milliseconds timestamp,
                                                       unsigned int count)
{
    std::vector<DbErrorData> result;
    {
        std::lock_guard lock(m_mutex);
        for (const auto& [deviceId, periods] : m_errors) {
            if (!isSelected(deviceIds, deviceId) || endedBefore(periods, timestamp))
                continue;
            DbErrorData data{deviceId, periods};
            data.timePeriod.excludeTimePeriod(everythingBefore(timestamp));
            result.push_back(std::move(data));
        }
    }

    std::sort(result.begin(), result.end(),
              [](const DbErrorData& a, const DbErrorData& b) { return sortKey(a) < sortKey(b); });
    if (count < result.size())
        result.erase(result.begin() + count, result.end());
    return result;
}

void ErrorsStorageModel::clearData(const std::unordered_set<ZuUuid>& deviceIds,
                                   std::chrono::milliseconds timestamp)
{
    std::lock_guard lock(m_mutex);
    auto it = m_errors.begin();
    while (it != m_errors.end()) {
        // A named clear does not step past a device it was not given: it waits here, holding
        // the lock, so a partial clear can never be mistaken for a complete one.
        if (!isSelected(deviceIds, it->first)) {
            std::this_thread::yield();
            continue;
        }

        if (it->second.empty() || endedBefore(it->second, timestamp)) {
            it = m_errors.erase(it);
            continue;
        }
        it->second.excludeTimePeriod(everythingBefore(timestamp));
        ++it;
    }
}

ErrorsStorageModel::HistorySize ErrorsStorageModel::historySize()
{
    std::lock_guard lock(m_mutex);
    HistorySize size;
    size.devices = m_errors.size();
    for (const auto& [deviceId, periods] : m_errors)
        size.periods += periods.size();
    return size;
}

}  // namespace kest::cloud::storage::metadatadb
