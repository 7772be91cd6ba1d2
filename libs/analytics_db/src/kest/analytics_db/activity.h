#pragma once

#include <boost/describe/class.hpp>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kest::analytics::db {

/** How many tracks of a search were seen during one bucket of time, in all and per type. */
struct ActivityBucket
{
    std::int64_t startTimeMs = 0;
    std::int64_t tracks = 0;
    /** Only the types seen in the bucket. */
    std::map<std::string, std::int64_t> byType;

    friend bool operator==(const ActivityBucket&, const ActivityBucket&) = default;
};
BOOST_DESCRIBE_STRUCT(ActivityBucket, (), (startTimeMs, tracks, byType))

/**
 * Where the tracks of a search were seen: per cell of the 16x16 grid over the frame, the tracks
 * whose grid has the cell set; row by row from the top, each row from the left.
 */
struct ActivityHeatmap
{
    static constexpr int kSize = 16;

    int columns = kSize;
    int rows = kSize;
    std::vector<std::int64_t> cells;

    friend bool operator==(const ActivityHeatmap&, const ActivityHeatmap&) = default;
};
BOOST_DESCRIBE_STRUCT(ActivityHeatmap, (), (columns, rows, cells))

/**
 * The activity of a search: buckets of `bucketMs` from the start of its period, every one listed
 * (empty ones with 0), and the heatmap when it was asked for. A track counts in every bucket that
 * its first to last appearance (both included) overlaps; bucket i is [start + i * bucketMs,
 * start + (i + 1) * bucketMs), the last one cut at the period's end.
 */
struct Activity
{
    std::int64_t bucketMs = 0;
    std::vector<ActivityBucket> buckets;
    std::optional<ActivityHeatmap> heatmap;

    friend bool operator==(const Activity&, const Activity&) = default;
};
BOOST_DESCRIBE_STRUCT(Activity, (), (bucketMs, buckets, heatmap))

}  // namespace kest::analytics::db
