#include "db_result.h"

#include <sqlite3.h>

namespace kest::sql {

std::string toString(DBResult result)
{
    switch (result) {
        case DBResult::ok:
            return "ok";
        case DBResult::statementError:
            return "statementError";
        case DBResult::ioError:
            return "ioError";
        case DBResult::notFound:
            return "notFound";
        case DBResult::cancelled:
            return "cancelled";
        case DBResult::retryLater:
            return "retryLater";
        case DBResult::uniqueConstraintViolation:
            return "uniqueConstraintViolation";
        case DBResult::connectionError:
            return "connectionError";
        case DBResult::logicError:
            return "logicError";
        case DBResult::endOfData:
            return "endOfData";
        case DBResult::full:
            return "full";
        case DBResult::readOnly:
            return "readOnly";
    }
    return "unknown(" + std::to_string(static_cast<int>(result)) + ")";
}

DBResult fromSqliteCode(int code)
{
    switch (code & 0xff) {
        case SQLITE_OK:
        case SQLITE_DONE:
        case SQLITE_ROW:
            return DBResult::ok;
        case SQLITE_FULL:
            return DBResult::full;
        case SQLITE_IOERR:
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return DBResult::ioError;
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_AUTH:
            return DBResult::readOnly;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
        case SQLITE_PROTOCOL:
            return DBResult::retryLater;
        case SQLITE_CANTOPEN:
            return DBResult::connectionError;
        case SQLITE_CONSTRAINT:
            return (code == SQLITE_CONSTRAINT_UNIQUE || code == SQLITE_CONSTRAINT_PRIMARYKEY)
                       ? DBResult::uniqueConstraintViolation
                       : DBResult::statementError;
        case SQLITE_INTERRUPT:
        case SQLITE_ABORT:
            return DBResult::cancelled;
        case SQLITE_NOTFOUND:
            return DBResult::notFound;
        case SQLITE_MISUSE:
            return DBResult::logicError;
        default:
            return DBResult::statementError;
    }
}

}  // namespace kest::sql
