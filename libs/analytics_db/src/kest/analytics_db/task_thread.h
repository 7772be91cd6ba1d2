#pragma once

#include <condition_variable>
#include <deque>
#include <thread>

#include <kest/utils/move_only_func.h>
#include <kest/utils/mutex.h>

namespace kest::analytics::db {

/**
 * A thread that runs what it is given, in order: the storage's completions of saves that wait
 * for their commit, and the freeing of written packets, both kept off the writer.
 */
class TaskThread
{
public:
    using Task = utils::MoveOnlyFunc<void()>;

    TaskThread();
    /** Runs what is queued, then stops. */
    ~TaskThread();
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;

    void post(Task task);
    /** Blocks until every task posted before the call has run. */
    void drain();

private:
    void run();

    Mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_idle;
    std::deque<Task> m_tasks;
    bool m_running = false;
    bool m_stopping = false;
    std::thread m_thread;
};

}  // namespace kest::analytics::db
