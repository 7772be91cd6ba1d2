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

int Checkpointer::onCommit(void* self, sqlite3*, const char*, int pages)
{
    auto* checkpointer = static_cast<Checkpointer*>(self);
    {
        std::lock_guard lock(checkpointer->m_mutex);
        checkpointer->m_pages = pages;
    }
    if (pages >= kPages)
        checkpointer->m_wake.notify_one();
    return SQLITE_OK;
}

void Checkpointer::run()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [&] { return m_stopping || m_pages >= kPages; });
        const bool last = m_stopping;
        m_pages = 0;
        lock.unlock();
        int logPages = 0, copied = 0;
        const int rc = sqlite3_wal_checkpoint_v2(m_db.handle(), nullptr, SQLITE_CHECKPOINT_PASSIVE,
                                                 &logPages, &copied);
        if (rc != SQLITE_OK && rc != SQLITE_BUSY) {
            KEST_WARNING(this, "Checkpointing the analytics database failed: %1",
                         sqlite3_errmsg(m_db.handle()));
        }
        if (last)
            return;
        lock.lock();
    }
}

}  // namespace kest::analytics::db
