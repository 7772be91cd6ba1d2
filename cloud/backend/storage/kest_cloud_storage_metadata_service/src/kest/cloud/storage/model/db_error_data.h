#pragma once

#include <boost/describe/class.hpp>
#include <string>

#include <kest/vms_common/zu_time_period_list.h>
#include <kest/vms_common/zu_uuid.h>

namespace kest::cloud::storage::metadatadb {

/** One device's failed-save periods as the errors API reports them. */
struct DbErrorData
{
    ZuUuid deviceId;
    ZuTimePeriodList timePeriod;

    friend bool operator==(const DbErrorData&, const DbErrorData&) = default;
};

BOOST_DESCRIBE_STRUCT(DbErrorData, (), (deviceId, timePeriod))

std::string toString(const DbErrorData& data);

}  // namespace kest::cloud::storage::metadatadb
