#include "periods_notifier.h"

#include <algorithm>

#include <kest/utils/log/log.h>

namespace kest::analytics::db {

PeriodsNotifier::PeriodsNotifier(WithoutHandler withoutHandler)
    : m_withoutHandler(withoutHandler), m_thread([this] { run(); })
{}

PeriodsNotifier::~PeriodsNotifier()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void PeriodsNotifier::setHandler(Handler handler)
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
    m_delivered.notify_all();
}

bool PeriodsNotifier::wantsReports() const
{
    if (m_withoutHandler == WithoutHandler::keep)
        return true;
    std::lock_guard lock(m_mutex);
    return m_hasHandler;
}

void PeriodsNotifier::report(sql::DBResult result, Periods periods)
{
    {
        std::lock_guard lock(m_mutex);
        if (!m_hasHandler && m_withoutHandler == WithoutHandler::drop)
            return;
        ++m_reportCount;
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

void PeriodsNotifier::waitUntilDelivered()
{
    std::unique_lock lock(m_mutex);
    const std::uint64_t target = m_reportCount;
    m_delivered.wait(lock,
                     [&] { return m_deliveredCount >= target || !m_hasHandler || m_stopped; });
}

void PeriodsNotifier::run()
{
    const bool dropping = m_withoutHandler == WithoutHandler::drop;
    std::unique_lock lock(m_mutex);
    const auto markDelivered = [&](std::uint64_t count) {
        m_deliveredCount = std::max(m_deliveredCount, count);
        m_delivered.notify_all();
    };
    for (;;) {
        m_wake.wait(
            lock, [&] { return m_stopping || (!m_pending.empty() && (m_hasHandler || dropping)); });
        if (!m_hasHandler && dropping && !m_pending.empty()) {
            // The handler went away after these were made.
            m_pending.clear();
            markDelivered(m_reportCount);
            continue;
        }
        if (!m_hasHandler || m_pending.empty()) {
            if (!m_stopping)
                continue;
            // Nobody will ever hear of these: leave them in the log rather than lose them.
            for (const auto& [result, periods] : m_pending)
                KEST_WARNING(this, "Unreported save error %1 for %2", result, periods);
            m_stopped = true;
            markDelivered(m_reportCount);
            return;
        }
        auto reports = std::move(m_pending);
        m_pending.clear();
        const std::uint64_t taken = m_reportCount;
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
                    KEST_ERROR(this, "Periods report handler threw: %1", e.what());
                }
            }
        }
        lock.lock();
        markDelivered(taken);
    }
}

}  // namespace kest::analytics::db
