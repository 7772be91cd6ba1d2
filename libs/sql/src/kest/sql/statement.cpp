#include "statement.h"

#include <sqlite3.h>

#include "database.h"

namespace kest::sql {

Statement::~Statement()
{
    sqlite3_finalize(m_stmt);
}

void Statement::reset()
{
    sqlite3_reset(m_stmt);
    sqlite3_clear_bindings(m_stmt);
    m_result = DBResult::ok;
}

void Statement::bind(int index, std::int64_t value)
{
    sqlite3_bind_int64(m_stmt, index, value);
}

void Statement::bind(int index, double value)
{
    sqlite3_bind_double(m_stmt, index, value);
}

void Statement::bindText(int index, std::string_view value)
{
    sqlite3_bind_text64(m_stmt, index, value.data(), value.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

void Statement::bindBlob(int index, std::span<const std::uint8_t> value)
{
    sqlite3_bind_blob64(m_stmt, index, value.data(), value.size(), SQLITE_TRANSIENT);
}

void Statement::bindBlob(int index, std::string_view bytes)
{
    sqlite3_bind_blob64(m_stmt, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT);
}

void Statement::bindTextInPlace(int index, std::string_view value)
{
    sqlite3_bind_text64(m_stmt, index, value.data(), value.size(), SQLITE_STATIC, SQLITE_UTF8);
}

void Statement::bindBlobInPlace(int index, std::string_view bytes)
{
    sqlite3_bind_blob64(m_stmt, index, bytes.data(), bytes.size(), SQLITE_STATIC);
}

void Statement::bindNull(int index)
{
    sqlite3_bind_null(m_stmt, index);
}

bool Statement::step()
{
    const int rc = sqlite3_step(m_stmt);
    if (rc == SQLITE_ROW)
        return true;
    if (rc == SQLITE_DONE) {
        m_result = DBResult::ok;
    } else {
        // The statement's own code is the precise one; the reset keeps the connection usable.
        m_result = m_db->fail(sqlite3_extended_errcode(m_db->handle()), sqlite3_sql(m_stmt));
        sqlite3_reset(m_stmt);
    }
    return false;
}

DBResult Statement::exec()
{
    while (step()) {
    }
    return m_result;
}

std::int64_t Statement::int64(int column) const
{
    return sqlite3_column_int64(m_stmt, column);
}

double Statement::real(int column) const
{
    return sqlite3_column_double(m_stmt, column);
}

std::string_view Statement::text(int column) const
{
    const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(m_stmt, column));
    return data ? std::string_view(data, sqlite3_column_bytes(m_stmt, column)) : std::string_view();
}

std::string_view Statement::blob(int column) const
{
    const auto* data = static_cast<const char*>(sqlite3_column_blob(m_stmt, column));
    return data ? std::string_view(data, sqlite3_column_bytes(m_stmt, column)) : std::string_view();
}

bool Statement::isNull(int column) const
{
    return sqlite3_column_type(m_stmt, column) == SQLITE_NULL;
}

}  // namespace kest::sql
