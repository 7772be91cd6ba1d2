#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "connection_options.h"
#include "db_result.h"
#include "statement.h"

struct sqlite3;

namespace kest::sql {

/**
 * One SQLite connection, owned by one thread at a time. Keeps the prepared statements it has
 * handed out, so that hot statements are compiled once per connection.
 */
class Database
{
public:
    Database() = default;
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    /** Opens (creating if asked) the file and applies the options. */
    DBResult open(const std::string& path, const ConnectionOptions& options, bool create = true);
    void close();
    bool isOpen() const { return m_db != nullptr; }

    /** Runs one or more statements that return no rows. */
    DBResult exec(std::string_view sql);

    /**
     * The cached statement for `sql`, reset and with its bindings cleared; null when it does
     * not compile (the error is then in lastError()).
     */
    Statement* cached(const std::string& sql);

    /**
     * Resets every cached statement. A statement left on a row keeps its read snapshot open,
     * which holds back WAL checkpoints, so callers do this when they finish a unit of work.
     */
    void resetCached();

    /** A statement owned by the caller. */
    std::unique_ptr<Statement> prepare(std::string_view sql);

    std::int64_t lastInsertRowId() const;

    /** The text and result of the last failure on this connection. */
    const std::string& lastError() const { return m_lastError; }
    DBResult lastResult() const { return m_lastResult; }
    /** Records a failure of `code` together with the connection's message. */
    DBResult fail(int code, std::string_view context);

    sqlite3* handle() const { return m_db; }

private:
    sqlite3* m_db = nullptr;
    std::map<std::string, std::unique_ptr<Statement>, std::less<>> m_cache;
    std::string m_lastError;
    DBResult m_lastResult = DBResult::ok;
};

}  // namespace kest::sql
