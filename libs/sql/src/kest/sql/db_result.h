#pragma once

#include <string>

namespace kest::sql {

/** The outcome of a database operation, as save-error reports carry it. */
enum class DBResult : int
{
    ok = 0,
    statementError,
    ioError,
    notFound,
    cancelled,
    retryLater,
    uniqueConstraintViolation,
    connectionError,
    logicError,
    endOfData,
    full,
    readOnly,
};

std::string toString(DBResult result);

/** The result for a SQLite result code (primary or extended); SQLITE_OK and SQLITE_DONE give ok. */
DBResult fromSqliteCode(int code);

}  // namespace kest::sql
