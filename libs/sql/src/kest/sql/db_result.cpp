#include "db_result.h"

namespace kest::sql {

std::string toString(DBResult result)
{
    switch (result) {
        case DBResult::ok: return "ok";
        case DBResult::statementError: return "statementError";
        case DBResult::ioError: return "ioError";
        case DBResult::notFound: return "notFound";
        case DBResult::cancelled: return "cancelled";
        case DBResult::retryLater: return "retryLater";
        case DBResult::uniqueConstraintViolation: return "uniqueConstraintViolation";
        case DBResult::connectionError: return "connectionError";
        case DBResult::logicError: return "logicError";
        case DBResult::endOfData: return "endOfData";
        case DBResult::full: return "full";
        case DBResult::readOnly: return "readOnly";
    }
    return "unknown(" + std::to_string(static_cast<int>(result)) + ")";
}

}  // namespace kest::sql
