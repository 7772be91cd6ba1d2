#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <kest/analytics_db/filter.h>
#include <kest/analytics_db/object_metadata_packet.h>

#include "activity_request_data.h"

namespace kest::cloud::storage::metadatadb {

/**
 * The values that requests may carry beyond what their types allow, as the API description
 * states them: what no packet, box or period can have is refused with the path of the field,
 * boxes that reach past the frame are clipped to it, and objects without a track id get one.
 */
class ValueRules
{
public:
    /** The largest packet start and duration, in microseconds: 2^62-1, some 146,000 years. */
    static constexpr std::int64_t kMaxTimeUs = (std::int64_t{1} << 62) - 1;

    /**
     * Makes packets ready to be stored, or says what no packet can have: "[0].durationUs: ...".
     * - The start and the duration are each from 0 to kMaxTimeUs.
     * - Box coordinates and sizes are fractions of the frame, from 0 to 1; a box reaching past
     *   the right or bottom edge is cut there.
     * - An object without a track id (absent or the null UUID) is a track of its own, with the
     *   id untrackedObjectTrackId() gives it; `untrackedObjects` counts them.
     * On a problem the packets are left partly prepared, to be dropped.
     */
    static std::string preparePackets(
        std::vector<kest::common::metadata::ObjectMetadataPacket>* packets,
        std::size_t* untrackedObjects);

    /**
     * What no search filter can have, named by its path in the request record
     * ("filter.boundingBox.x: ..."); empty when the filter is fine. A search box has the same
     * bounds as a stored one, but is not clipped; a duration is 0 or more, or -1 for no end.
     */
    static std::string checkFilter(const kest::analytics::db::Filter& filter);

    /**
     * What an activity count cannot be asked, named as checkFilter() names it, "bucketMs: ..."
     * included; empty when the request is fine. The period needs an end and a length, and its
     * buckets, bucketMs or the default, must number at most ActivityQuery::kMaxBuckets.
     */
    static std::string checkActivity(const ActivityRequestData& request);

    /**
     * A UUID derived from the device, the packet's time and the object's place in the packet's
     * list, so that a packet sent again gives its untracked objects the same ids.
     */
    static ZuUuid untrackedObjectTrackId(const ZuUuid& deviceId, std::int64_t timestampUs,
                                         std::size_t index);
};

}  // namespace kest::cloud::storage::metadatadb
