#pragma once

#include <condition_variable>
#include <thread>
#include <unordered_map>
#include <vector>

#include <kest/utils/mutex.h>

#include "abstract_events_storage.h"

namespace kest::analytics::db {

/**
 * Delivers save-error reports on its own thread, so that a slow or blocked handler never holds
 * up the writer. Reports that pile up while the handler is busy, or before any handler is set,
 * are merged per result and device into one report each.
 */
class SaveErrorNotifier
{
public:
    SaveErrorNotifier();
    /** Delivers what is pending (when a handler is set; otherwise logs it), then stops. */
    ~SaveErrorNotifier();
    SaveErrorNotifier(const SaveErrorNotifier&) = delete;
    SaveErrorNotifier& operator=(const SaveErrorNotifier&) = delete;

    /** Replaces the handler. Not to be called from inside the handler, which runs under its lock.
     */
    void setHandler(SaveErrorHandler handler);
    void report(sql::DBResult result, std::unordered_map<ZuUuid, ZuTimePeriodList> periods);

private:
    using Periods = std::unordered_map<ZuUuid, ZuTimePeriodList>;

    void run();

    Mutex m_mutex;
    std::condition_variable m_wake;
    std::vector<std::pair<sql::DBResult, Periods>> m_pending;
    bool m_hasHandler = false;
    bool m_stopping = false;
    // Held while the handler runs, so that replacing it waits for the call in progress.
    Mutex m_handlerMutex;
    SaveErrorHandler m_handler;
    std::thread m_thread;
};

}  // namespace kest::analytics::db
