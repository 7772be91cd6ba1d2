#pragma once

#include <string>

#include <kest/vms_common/zu_time_period.h>

namespace kest::cloud::storage::metadatadb {

/** A data address: one instance holds analytics data of this device for this time span. */
struct DataInfo
{
    std::string deviceId;
    ZuTimePeriod timePeriod;

    friend bool operator==(const DataInfo&, const DataInfo&) = default;
};

/** "deviceId: <id>, time period: <period>". */
std::string toString(const DataInfo& data);

}  // namespace kest::cloud::storage::metadatadb
