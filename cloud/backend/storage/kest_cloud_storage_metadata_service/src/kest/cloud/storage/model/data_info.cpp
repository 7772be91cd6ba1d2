#include "data_info.h"

namespace kest::cloud::storage::metadatadb {

std::string toString(const DataInfo& data)
{
    return "deviceId: " + data.deviceId + ", time period: " + toString(data.timePeriod);
}

}  // namespace kest::cloud::storage::metadatadb
