#include "db_error_data.h"

#include <kest/utils/to_text.h>

namespace kest::cloud::storage::metadatadb {

std::string toString(const DbErrorData& data)
{
    return kest::utils::format("(deviceId: %1, timePeriod: %2)", data.deviceId, data.timePeriod);
}

}  // namespace kest::cloud::storage::metadatadb
