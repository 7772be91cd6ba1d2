#include "result_code.h"

namespace kest::analytics::db {

std::string toString(ResultCode code)
{
    switch (code) {
        case ResultCode::ok:
            return "ok";
        case ResultCode::retryLater:
            return "retryLater";
        case ResultCode::error:
            return "error";
        case ResultCode::notSupported:
            return "notSupported";
    }
    return "unknown (" + std::to_string(static_cast<int>(code)) + ")";
}

}  // namespace kest::analytics::db
