#pragma once

#include <condition_variable>
#include <string>
#include <thread>

#include <kest/sql/database.h>
#include <kest/utils/mutex.h>

namespace kest::analytics::db {

/**
 * Folds the write-ahead log into the database on a thread and connection of its own, so that
 * the writer never waits for the copy and its syncs: the writer's connection tells it how long
 * the log has grown after each commit (SQLite's own checkpoints after commits are off). Passive
 * checkpoints: they never wait for readers or the writer, and the log starts over once one has
 * caught up.
 */
class Checkpointer
{
public:
    /** Log pages past which a checkpoint starts. */
    static constexpr int kPages = 4096;

    Checkpointer() = default;
    /** Runs a last checkpoint, then stops. */
    ~Checkpointer();
    Checkpointer(const Checkpointer&) = delete;
    Checkpointer& operator=(const Checkpointer&) = delete;

    /** Opens its connection and watches the commits of `writer`. */
    sql::DBResult start(const std::string& file, const sql::ConnectionOptions& options,
                        sql::Database& writer);

private:
    static int onCommit(void* self, struct sqlite3* db, const char* name, int pages);
    void run();

    sql::Database m_db;
    Mutex m_mutex;
    std::condition_variable m_wake;
    int m_pages = 0;
    bool m_stopping = false;
    std::thread m_thread;
};

}  // namespace kest::analytics::db
