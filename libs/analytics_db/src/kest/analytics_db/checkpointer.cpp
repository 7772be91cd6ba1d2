#include "checkpointer.h"

#include <sqlite3.h>

#include <kest/utils/log/log.h>

namespace kest::analytics::db {

Checkpointer::~Checkpointer()
{
    if (!m_thread.joinable())
        return;
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

sql::DBResult Checkpointer::start(const std::string& file, const sql::ConnectionOptions& options,
                                  sql::Database& writer)
{
    if (auto r = m_db.open(file, options, /*create*/ false); r != sql::DBResult::ok)
        return r;
    sqlite3_wal_hook(writer.handle(), &Checkpointer::onCommit, this);
    m_thread = std::thread([this] { run(); });
    return sql::DBResult::ok;
}

int Checkpointer::onCommit(void* self, sqlite3*, const char*, int frames)
{
    auto* checkpointer = static_cast<Checkpointer*>(self);
    checkpointer->m_logFrames = frames;
    bool due = false;
    {
        std::lock_guard lock(checkpointer->m_mutex);
        // A log shorter than before has started over: nothing of it is copied yet.
        if (frames < checkpointer->m_frames)
            checkpointer->m_copied = 0;
        checkpointer->m_frames = frames;
        due = frames - checkpointer->m_copied >= kPages;
    }
    if (due)
        checkpointer->m_wake.notify_one();
    return SQLITE_OK;
}

void Checkpointer::restartIfLong(sql::Database& writer)
{
    if (m_logFrames < kLongLog)
        return;
    int frames = 0, copied = 0;
    const int rc = sqlite3_wal_checkpoint_v2(writer.handle(), nullptr, SQLITE_CHECKPOINT_RESTART,
                                             &frames, &copied);
    if (rc == SQLITE_OK)
        m_logFrames = 0;
    else if (rc != SQLITE_BUSY)
        KEST_WARNING(this, "Restarting the analytics database's log failed: %1",
                     sqlite3_errmsg(writer.handle()));
}

void Checkpointer::run()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [&] { return m_stopping || m_frames - m_copied >= kPages; });
        const bool last = m_stopping;
        lock.unlock();
        int frames = 0, copied = 0;
        const int rc = sqlite3_wal_checkpoint_v2(m_db.handle(), nullptr, SQLITE_CHECKPOINT_PASSIVE,
                                                 &frames, &copied);
        if (rc != SQLITE_OK && rc != SQLITE_BUSY) {
            KEST_WARNING(this, "Checkpointing the analytics database failed: %1",
                         sqlite3_errmsg(m_db.handle()));
        }
        if (last)
            return;
        lock.lock();
        // The log may have started over meanwhile: then what was copied is of the old one.
        if (rc == SQLITE_OK && frames <= m_frames)
            m_copied = std::max(m_copied, copied);
        else if (rc != SQLITE_OK)
            m_copied = m_frames;  //< Tried: wait for kPages more before trying again.
    }
}

}  // namespace kest::analytics::db
