#pragma once

#include <chrono>
#include <memory>
#include <unordered_map>
#include <vector>

#include <kest/sql/db_result.h>
#include <kest/utils/move_only_func.h>
#include <kest/vms_common/zu_time_period_list.h>
#include <kest/vms_common/zu_uuid.h>

#include "activity.h"
#include "activity_query.h"
#include "filter.h"
#include "object_metadata_packet.h"
#include "object_track_ex.h"
#include "result_code.h"
#include "settings.h"
#include "storage_statistics.h"

namespace kest::analytics::db {

using SaveErrorHandler =
    utils::MoveOnlyFunc<void(kest::sql::DBResult, std::unordered_map<ZuUuid, ZuTimePeriodList>)>;
using LookupHandler = utils::MoveOnlyFunc<void(ResultCode, std::vector<ObjectTrackEx>)>;
using ActivityHandler = utils::MoveOnlyFunc<void(ResultCode, Activity)>;
using CommitHandler = utils::MoveOnlyFunc<void(std::unordered_map<ZuUuid, ZuTimePeriodList>)>;
using CommittedHandler = utils::MoveOnlyFunc<void(bool committed)>;
using RetentionHandler = utils::MoveOnlyFunc<void(std::chrono::system_clock::time_point)>;

/** The analytics events storage: packets go in and are aggregated into tracks; searches come out.
 */
class AbstractEventsStorage
{
public:
    virtual ~AbstractEventsStorage() = default;

    /** Opens or creates the database. On failure the storage stays not ready. */
    virtual bool initialize(const Settings& settings) = 0;

    /** Called on the storage's thread for every batch that could not be written. */
    virtual void setOnSaveErrorHandler(SaveErrorHandler handler) = 0;

    /** Whether saves and lookups are accepted now (initialised, write queue below its mark). */
    virtual bool isReady() const = 0;

    /** Queues a packet; never blocks. */
    virtual void save(std::shared_ptr<const common::metadata::ObjectMetadataPacket> packet) = 0;

    /** Whether saves are to be acknowledged once committed (saveCommitted), by the settings. */
    virtual bool acknowledgesAfterCommit() const { return false; }

    /**
     * Queues the packets as save() does, and calls `handler` once, on a thread of the storage,
     * when all of them are committed (true) or once a batch holding some of them failed (false;
     * the failure is reported as a save error too). Saves that wait at the same time share
     * their commits. Never blocks. A storage that keeps no commits has nothing to wait for.
     */
    virtual void saveCommitted(
        std::vector<std::shared_ptr<const common::metadata::ObjectMetadataPacket>> packets,
        CommittedHandler handler)
    {
        for (auto& packet : packets)
            save(std::move(packet));
        handler(true);
    }

    /** Searches off the caller's thread; the handler is called exactly once, on the storage's
     * thread. */
    virtual void lookup(Filter filter, LookupHandler completionHandler) = 0;

    /**
     * Counts the tracks that the query's filter selects per bucket of time and type, and per cell
     * of the grid when asked, off the caller's thread; the handler is called exactly once, on the
     * storage's thread unless the storage cannot count (then at once, with notSupported).
     */
    virtual void countActivity(ActivityQuery /*query*/, ActivityHandler completionHandler)
    {
        completionHandler(ResultCode::notSupported, {});
    }

    /**
     * After each committed batch the handler gets the periods of its packets per device, on a
     * thread of the storage that is not the writer; a null handler stops the reports. Batches
     * committed while no handler is set are not reported.
     */
    virtual void setOnCommitHandler(CommitHandler /*handler*/) {}

    /**
     * Blocks until every packet queued before the call is committed or reported as failed, and
     * the commit handler has been told of those committed.
     */
    virtual void flush() {}

    /**
     * After each step that deletes tracks by age, the handler gets the time before which the
     * storage holds no data any more, on the writer's thread; it must not block. A null handler
     * stops the reports. A storage that deletes nothing by age never calls it.
     */
    virtual void setOnRetentionHandler(RetentionHandler /*handler*/) {}

    /** Cheap to call from any thread: the figures are kept in atomics. */
    virtual StorageStatistics statistics() const { return {}; }
};

}  // namespace kest::analytics::db
