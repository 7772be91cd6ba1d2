#pragma once

#include "db_result.h"

namespace kest::sql {

class Database;

/** A write transaction (BEGIN IMMEDIATE) that rolls back unless committed. */
class Transaction
{
public:
    explicit Transaction(Database& db);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    /** Whether BEGIN succeeded; when it did not, commit() returns the same failure. */
    DBResult beginResult() const { return m_begin; }
    DBResult commit();
    void rollback();

private:
    Database& m_db;
    DBResult m_begin;
    bool m_open = false;
};

}  // namespace kest::sql
