#include "database.h"

#include <sqlite3.h>

#include <kest/utils/log/log.h>

#include "shared_map_vfs.h"

namespace kest::sql {

namespace {

/** Pragma values go into SQL text, so only plain words are accepted. */
bool isPlainWord(const QString& value)
{
    if (value.isEmpty())
        return false;
    for (const QChar c : value) {
        if (!c.isLetterOrNumber() && c != '_')
            return false;
    }
    return true;
}

}  // namespace

Database::~Database()
{
    close();
}

DBResult Database::open(const std::string& path, const ConnectionOptions& options, bool create)
{
    close();
    SharedMapVfs::install();
    const int flags =
        SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0) | SQLITE_OPEN_NOMUTEX;
    const int rc = sqlite3_open_v2(path.c_str(), &m_db, flags, nullptr);
    if (rc != SQLITE_OK) {
        const DBResult result = fail(rc, "open " + path);
        close();
        return result;
    }
    sqlite3_extended_result_codes(m_db, 1);
    sqlite3_busy_timeout(m_db, static_cast<int>(options.busyTimeout.count()));

    std::string pragmas;
    if (isPlainWord(options.journalMode))
        pragmas += "PRAGMA journal_mode=" + options.journalMode.toStdString() + ";";
    if (isPlainWord(options.synchronous))
        pragmas += "PRAGMA synchronous=" + options.synchronous.toStdString() + ";";
    if (options.cacheSizeKb > 0)
        pragmas += "PRAGMA cache_size=-" + std::to_string(options.cacheSizeKb) + ";";
    if (options.mmapSizeMb > 0) {
        pragmas += "PRAGMA mmap_size=" +
                   std::to_string(static_cast<std::int64_t>(options.mmapSizeMb) << 20) + ";";
    }
    pragmas += "PRAGMA temp_store=MEMORY;";
    // Reading the header here turns a file that is not a database into an open failure
    // instead of a failure of the first real statement.
    pragmas += "PRAGMA user_version;";
    if (const DBResult result = exec(pragmas); result != DBResult::ok) {
        close();
        return result;
    }
    return DBResult::ok;
}

void Database::close()
{
    m_cache.clear();
    if (m_db) {
        sqlite3_close_v2(m_db);
        m_db = nullptr;
    }
}

DBResult Database::exec(std::string_view sql)
{
    if (!m_db)
        return fail(SQLITE_MISUSE, "exec on a closed connection");
    const std::string text(sql);
    char* message = nullptr;
    const int rc = sqlite3_exec(m_db, text.c_str(), nullptr, nullptr, &message);
    sqlite3_free(message);
    if (rc != SQLITE_OK)
        return fail(rc, text);
    return DBResult::ok;
}

Statement* Database::cached(const std::string& sql)
{
    if (auto it = m_cache.find(sql); it != m_cache.end()) {
        it->second->reset();
        return it->second.get();
    }
    auto statement = prepare(sql);
    if (!statement)
        return nullptr;
    return m_cache.emplace(sql, std::move(statement)).first->second.get();
}

void Database::resetCached()
{
    for (auto& [sql, statement] : m_cache)
        statement->reset();
}

std::unique_ptr<Statement> Database::prepare(std::string_view sql)
{
    if (!m_db) {
        fail(SQLITE_MISUSE, "prepare on a closed connection");
        return nullptr;
    }
    sqlite3_stmt* stmt = nullptr;
    const int rc = sqlite3_prepare_v3(m_db, sql.data(), static_cast<int>(sql.size()),
                                      SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
    if (rc != SQLITE_OK) {
        fail(rc, sql);
        return nullptr;
    }
    return std::make_unique<Statement>(this, stmt);
}

std::int64_t Database::lastInsertRowId() const
{
    return sqlite3_last_insert_rowid(m_db);
}

DBResult Database::fail(int code, std::string_view context)
{
    m_lastResult = fromSqliteCode(code);
    m_lastError = std::string(sqlite3_errstr(code));
    if (m_db && sqlite3_errcode(m_db) == code)
        m_lastError = sqlite3_errmsg(m_db);
    m_lastError += " (" + std::string(context.substr(0, 200)) + ")";
    KEST_DEBUG("sql", "SQLite error %1: %2", code, m_lastError);
    return m_lastResult == DBResult::ok ? DBResult::statementError : m_lastResult;
}

}  // namespace kest::sql
