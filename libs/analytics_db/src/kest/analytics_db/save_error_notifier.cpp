#include "save_error_notifier.h"

#include <algorithm>

#include <kest/utils/log/log.h>

namespace kest::analytics::db {

SaveErrorNotifier::SaveErrorNotifier() : m_thread([this] { run(); }) {}

SaveErrorNotifier::~SaveErrorNotifier()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void SaveErrorNotifier::setHandler(SaveErrorHandler handler)
{
    const bool hasHandler = static_cast<bool>(handler);
    {
        std::lock_guard handlerLock(m_handlerMutex);
        m_handler = std::move(handler);
    }
    {
        std::lock_guard lock(m_mutex);
        m_hasHandler = hasHandler;
    }
    m_wake.notify_all();
}

void SaveErrorNotifier::report(sql::DBResult result, Periods periods)
{
    {
        std::lock_guard lock(m_mutex);
        auto it = std::find_if(m_pending.begin(), m_pending.end(),
                               [&](const auto& entry) { return entry.first == result; });
        if (it == m_pending.end()) {
            m_pending.emplace_back(result, std::move(periods));
        } else {
            for (auto& [device, list] : periods)
                ZuTimePeriodList::unionTimePeriods(it->second[device], list);
        }
    }
    m_wake.notify_all();
}

void SaveErrorNotifier::run()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [&] { return m_stopping || (m_hasHandler && !m_pending.empty()); });
        if (!m_hasHandler || m_pending.empty()) {
            if (!m_stopping)
                continue;
            // Nobody will ever hear of these: leave them in the log rather than lose them.
            for (const auto& [result, periods] : m_pending)
                KEST_WARNING(this, "Unreported save error %1 for %2", result, periods);
            return;
        }
        auto reports = std::move(m_pending);
        m_pending.clear();
        lock.unlock();
        {
            std::lock_guard handlerLock(m_handlerMutex);
            for (auto& [result, periods] : reports) {
                if (!m_handler) {
                    // The handler was removed meanwhile: keep the report for the next one.
                    report(result, std::move(periods));
                    continue;
                }
                try {
                    m_handler(result, std::move(periods));
                } catch (const std::exception& e) {
                    KEST_ERROR(this, "Save error handler threw: %1", e.what());
                }
            }
        }
        lock.lock();
    }
}

}  // namespace kest::analytics::db
