#pragma once

#include <boost/describe/class.hpp>
#include <optional>
#include <set>
#include <string>

#include <kest/vms_common/zu_time_period.h>
#include <kest/vms_common/zu_uuid.h>

#include "rect.h"
#include "sort_order.h"

namespace kest::analytics::db {

/**
 * What a track search selects. Empty sets, a null id, an empty text and an absent box select
 * everything; the time period defaults to all time. A limit of 0 means no limit.
 */
struct Filter
{
    std::set<ZuUuid> deviceIds;
    std::set<std::string> objectTypeId;
    ZuUuid objectTrackId;
    ZuTimePeriod timePeriod{0, ZuTimePeriod::kInfiniteDuration};
    std::optional<common::metadata::Rect> boundingBox;
    std::string freeText;
    int maxObjectTracksToSelect = 0;
    bool needFullTrack = false;
    SortOrder sortOrder = SortOrder::desc;
    bool withBestShotOnly = false;
    ZuUuid analyticsEngineId;

    friend bool operator==(const Filter&, const Filter&) = default;
};

BOOST_DESCRIBE_STRUCT(Filter, (),
                      (deviceIds, objectTypeId, objectTrackId, timePeriod, boundingBox, freeText,
                       maxObjectTracksToSelect, needFullTrack, sortOrder, withBestShotOnly,
                       analyticsEngineId))

}  // namespace kest::analytics::db
