#include "transaction.h"

#include <sqlite3.h>

#include "database.h"

namespace kest::sql {

Transaction::Transaction(Database& db) : m_db(db)
{
    m_begin = m_db.exec("BEGIN IMMEDIATE");
    m_open = m_begin == DBResult::ok;
}

Transaction::~Transaction()
{
    rollback();
}

DBResult Transaction::commit()
{
    if (!m_open)
        return m_begin == DBResult::ok ? DBResult::logicError : m_begin;
    const DBResult result = m_db.exec("COMMIT");
    if (result == DBResult::ok)
        m_open = false;
    else
        rollback();
    return result;
}

void Transaction::rollback()
{
    if (!m_open)
        return;
    m_open = false;
    // A failed statement may already have ended the transaction; ROLLBACK then fails harmlessly.
    if (sqlite3_get_autocommit(m_db.handle()) == 0)
        m_db.exec("ROLLBACK");
}

}  // namespace kest::sql
