#pragma once

#include <atomic>
#include <condition_variable>
#include <string>
#include <thread>

#include <kest/sql/database.h>
#include <kest/utils/mutex.h>

namespace kest::analytics::db {

/**
 * Folds the write-ahead log into the database on a thread and connection of its own, so that
 * the writer does not wait for the copy and its syncs: the writer's connection tells it how long
 * the log has grown after each commit (SQLite's own checkpoints after commits are off), and it
 * copies once kPages frames have come since its last copy. Passive checkpoints: they never wait
 * for readers or the writer. The log starts over at a commit once a checkpoint has caught up with
 * it; should the writer keep it from catching up for long, the writer restarts the log itself
 * between two batches (restartIfLong()).
 */
class Checkpointer
{
public:
    /** Log frames that start a checkpoint. */
    static constexpr int kPages = 4096;
    /** Log frames past which the writer restarts the log. */
    static constexpr int kLongLog = 8 * kPages;

    Checkpointer() = default;
    /** Runs a last checkpoint, then stops. */
    ~Checkpointer();
    Checkpointer(const Checkpointer&) = delete;
    Checkpointer& operator=(const Checkpointer&) = delete;

    /** Opens its connection and watches the commits of `writer`. */
    sql::DBResult start(const std::string& file, const sql::ConnectionOptions& options,
                        sql::Database& writer);

    /** On the writer's thread, between its transactions: copies and restarts a long log. */
    void restartIfLong(sql::Database& writer);

private:
    static int onCommit(void* self, struct sqlite3* db, const char* name, int pages);
    void run();

    sql::Database m_db;
    Mutex m_mutex;
    std::condition_variable m_wake;
    /** Frames in the log after the last commit, and of them the ones copied. */
    int m_frames = 0;
    int m_copied = 0;
    bool m_stopping = false;
    std::atomic<int> m_logFrames{0};
    std::thread m_thread;
};

}  // namespace kest::analytics::db
