#pragma once

#include <condition_variable>
#include <cstdint>
#include <thread>
#include <unordered_map>
#include <vector>

#include <kest/utils/mutex.h>

#include "abstract_events_storage.h"

namespace kest::analytics::db {

/**
 * Delivers reports of periods per device (failed saves, committed batches) on its own thread, so
 * that a slow or blocked handler never holds up the writer. Reports that pile up while the
 * handler is busy, or before any handler is set, are merged per result and device into one
 * report each.
 */
class PeriodsNotifier
{
public:
    using Periods = std::unordered_map<ZuUuid, ZuTimePeriodList>;
    using Handler = utils::MoveOnlyFunc<void(sql::DBResult, Periods)>;

    /** What becomes of reports made while no handler is set. */
    enum class WithoutHandler
    {
        /** Kept for the next handler; logged as unreported when the notifier stops. */
        keep,
        /** Dropped: nobody asked for them. */
        drop,
    };

    explicit PeriodsNotifier(WithoutHandler withoutHandler = WithoutHandler::keep);
    /** Delivers what is pending (when a handler is set; otherwise keeps or drops it), then stops.
     */
    ~PeriodsNotifier();
    PeriodsNotifier(const PeriodsNotifier&) = delete;
    PeriodsNotifier& operator=(const PeriodsNotifier&) = delete;

    /**
     * Replaces the handler, waiting for a call in progress. Not to be called from inside the
     * handler, which runs under its lock.
     */
    void setHandler(Handler handler);
    void report(sql::DBResult result, Periods periods);

    /** Whether a report made now would reach anyone, so that callers can skip building it. */
    bool wantsReports() const;

    /**
     * Blocks until every report made before the call has been handed to the handler, or was
     * dropped. Returns at once while no handler is set.
     */
    void waitUntilDelivered();

private:
    void run();

    const WithoutHandler m_withoutHandler;
    mutable Mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_delivered;
    std::vector<std::pair<sql::DBResult, Periods>> m_pending;
    std::uint64_t m_reportCount = 0;
    std::uint64_t m_deliveredCount = 0;
    bool m_hasHandler = false;
    bool m_stopping = false;
    bool m_stopped = false;
    // Held while the handler runs, so that replacing it waits for the call in progress.
    Mutex m_handlerMutex;
    Handler m_handler;
    std::thread m_thread;
};

}  // namespace kest::analytics::db
