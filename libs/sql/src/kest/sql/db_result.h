#pragma once

#include <string>

namespace kest::sql {

/** The outcome of a database operation, as save-error reports carry it. */
enum class DBResult : int {
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

}  // namespace kest::sql
