#include "task_thread.h"

#include <exception>

#include <kest/utils/log/log.h>

namespace kest::analytics::db {

TaskThread::TaskThread() : m_thread([this] { run(); }) {}

TaskThread::~TaskThread()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    m_thread.join();
}

void TaskThread::post(Task task)
{
    {
        std::lock_guard lock(m_mutex);
        m_tasks.push_back(std::move(task));
    }
    m_wake.notify_one();
}

void TaskThread::drain()
{
    std::unique_lock lock(m_mutex);
    m_idle.wait(lock, [&] { return m_tasks.empty() && !m_running; });
}

void TaskThread::run()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [&] { return m_stopping || !m_tasks.empty(); });
        if (m_tasks.empty())
            return;
        Task task = std::move(m_tasks.front());
        m_tasks.pop_front();
        m_running = true;
        lock.unlock();
        try {
            task();
        } catch (const std::exception& e) {
            KEST_ERROR("analytics_db", "A storage task threw: %1", e.what());
        }
        task = nullptr;
        lock.lock();
        m_running = false;
        if (m_tasks.empty())
            m_idle.notify_all();
    }
}

}  // namespace kest::analytics::db
