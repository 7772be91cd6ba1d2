#pragma once

#include <boost/describe/class.hpp>
#include <cstdint>
#include <vector>

#include <kest/vms_common/zu_time_period.h>
#include <kest/vms_common/zu_uuid.h>

#include "object_metadata.h"
#include "stream_index.h"

namespace kest::common::metadata {

/** The objects one camera saw during one span of time, as a VMS sends them. */
struct ObjectMetadataPacket
{
    ZuUuid deviceId;
    std::int64_t timestampUs = 0;
    std::int64_t durationUs = 0;
    std::vector<ObjectMetadata> objectMetadataList;
    StreamIndex streamIndex = StreamIndex::undefined;

    /** The packet's span in milliseconds (rounded outwards), as save-error reports carry it. */
    ZuTimePeriod timePeriod() const;

    friend bool operator==(const ObjectMetadataPacket&, const ObjectMetadataPacket&) = default;
};

BOOST_DESCRIBE_STRUCT(ObjectMetadataPacket, (),
                      (deviceId, timestampUs, durationUs, objectMetadataList, streamIndex))

}  // namespace kest::common::metadata
