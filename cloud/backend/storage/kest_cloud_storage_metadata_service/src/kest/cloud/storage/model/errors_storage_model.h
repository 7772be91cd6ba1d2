#pragma once

#include <chrono>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <kest/sql/db_result.h>
#include <kest/utils/mutex.h>
#include <kest/vms_common/zu_time_period_list.h>
#include <kest/vms_common/zu_uuid.h>

#include "db_error_data.h"

namespace kest::cloud::storage::metadatadb {

/**
 * In-memory history of the periods whose analytics metadata could not be saved, per device.
 * Fed by the analytics storage's save-error hook, read and pruned through the errors API.
 */
class ErrorsStorageModel
{
public:
    ErrorsStorageModel() = default;
    ErrorsStorageModel(const ErrorsStorageModel&) = delete;
    ErrorsStorageModel& operator=(const ErrorsStorageModel&) = delete;

    /** Merges the reported periods into the history. Every report is kept, whatever `result`. */
    void saveErrors(kest::sql::DBResult result,
                    std::unordered_map<ZuUuid, ZuTimePeriodList> errors);

    /**
     * The selected devices' periods from `timestamp` on, devices whose latest error ended
     * earliest first, at most `count` of them. An empty `deviceIds` selects every device.
     */
    std::vector<DbErrorData> getErrors(const std::unordered_set<ZuUuid>& deviceIds,
                                       std::chrono::milliseconds timestamp, unsigned int count);

    /**
     * Forgets what lies before `timestamp`. With a non-empty `deviceIds` this returns only when
     * every device in the history is among them: callers are expected to name all devices.
     */
    void clearData(const std::unordered_set<ZuUuid>& deviceIds,
                   std::chrono::milliseconds timestamp);

    struct HistorySize
    {
        std::size_t devices = 0;
        std::size_t periods = 0;
    };
    /** How much the history holds now. */
    HistorySize historySize();

private:
    std::unordered_map<ZuUuid, ZuTimePeriodList> m_errors;
    kest::Mutex m_mutex;
};

}  // namespace kest::cloud::storage::metadatadb
