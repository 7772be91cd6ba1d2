#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "db_result.h"

struct sqlite3_stmt;

namespace kest::sql {

class Database;

/** A prepared statement: bind by 1-based index, step through rows, read columns by 0-based index.
 */
class Statement
{
public:
    Statement(Database* db, sqlite3_stmt* stmt) : m_db(db), m_stmt(stmt) {}
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /** Makes the statement ready to run again, forgetting bindings. */
    void reset();

    void bind(int index, std::int64_t value);
    void bind(int index, int value) { bind(index, static_cast<std::int64_t>(value)); }
    void bind(int index, double value);
    /** Text and blobs are copied by SQLite, so temporaries are fine. */
    void bindText(int index, std::string_view value);
    void bindBlob(int index, std::span<const std::uint8_t> value);
    void bindBlob(int index, std::string_view bytes);
    /**
     * Not copied: SQLite reads the bytes where they are, so they must stay until the statement
     * has run (for large values on hot statements, where the copy shows).
     */
    void bindTextInPlace(int index, std::string_view value);
    void bindBlobInPlace(int index, std::string_view bytes);
    void bindNull(int index);

    /** True while a row is available; false at the end or on failure (see result()). */
    bool step();
    /** Runs a statement that returns no rows. */
    DBResult exec();
    /** ok after the last row or a successful exec; the failure otherwise. */
    DBResult result() const { return m_result; }

    std::int64_t int64(int column) const;
    double real(int column) const;
    std::string_view text(int column) const;
    /** The blob's bytes; valid until the next step or reset. */
    std::string_view blob(int column) const;
    bool isNull(int column) const;

private:
    Database* m_db;
    sqlite3_stmt* m_stmt;
    DBResult m_result = DBResult::ok;
};

}  // namespace kest::sql
