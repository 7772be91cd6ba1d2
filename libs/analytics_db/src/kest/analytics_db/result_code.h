#pragma once

#include <string>

namespace kest::analytics::db {

/** The outcome of a lookup. */
enum class ResultCode : int
{
    ok = 0,
    retryLater = 1,
    error = 2,
    /** The storage cannot do this kind of lookup. */
    notSupported = 3
};

std::string toString(ResultCode code);

}  // namespace kest::analytics::db
