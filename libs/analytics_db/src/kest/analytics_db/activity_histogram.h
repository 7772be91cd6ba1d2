#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "activity.h"
#include "activity_query.h"
#include "bounding_box_grid.h"

namespace kest::analytics::db {

/**
 * Adds up tracks into the buckets and the heatmap of an activity answer, in constant time per
 * track however many buckets it spans: each track adds one at its first bucket and takes one off
 * after its last, and the counts are these running sums. Types with many tracks get such a row of
 * their own; the others (a store can hold any number of types) keep their tracks' bucket ranges,
 * summed at the end, so that memory follows the tracks rather than types times buckets.
 */
class ActivityHistogram
{
public:
    /** Types that get a row of their own as they come; 64 rows of 10,000 buckets take 5 MB. */
    static constexpr std::size_t kDenseTypes = 64;

    /** `query` must be valid (ActivityQuery::isValid()). */
    explicit ActivityHistogram(const ActivityQuery& query, std::size_t denseTypes = kDenseTypes);

    /** A small number standing for the type, to give add(); the same for the same text. */
    std::size_t typeIndex(std::string_view type);

    /**
     * A track of the type seen from `firstUs` to `lastUs`, both included, counted in each bucket
     * it overlaps; nothing when it overlaps none.
     */
    void add(std::size_t typeIndex, std::int64_t firstUs, std::int64_t lastUs);
    /**
     * The same with the milliseconds that hold the first and last appearance (rounded down):
     * bucket edges being whole milliseconds, these decide the buckets alone.
     */
    void addMs(std::size_t typeIndex, std::int64_t firstMs, std::int64_t lastMs);

    /** Rounded down, as addMs() wants them. */
    static std::int64_t msOf(std::int64_t us) { return us / 1000 - (us % 1000 < 0 ? 1 : 0); }

    /** Counts the track's cells in the heatmap, if it was asked for. */
    void addCells(const BoundingBoxGrid& grid);

    Activity result() const;

private:
    struct Range
    {
        std::uint32_t type = 0;
        std::int32_t first = 0;
        std::int32_t last = 0;
    };

    /** The bucket holding `ms`, clipped to -1 before the first and m_count past the last. */
    std::int64_t bucketOf(std::int64_t ms) const;

    std::int64_t m_startMs = 0;
    std::int64_t m_bucketMs = 0;
    /** 1 / m_bucketMs: a multiplication finds the bucket, far cheaper than a division. */
    double m_inverseBucket = 0;
    std::int64_t m_count = 0;
    bool m_heatmap = false;
    std::size_t m_denseTypes = 0;

    std::vector<std::string> m_types;
    std::unordered_map<std::string, std::size_t> m_typeIndexes;
    /** Per bucket, plus one: +1 where tracks start, -1 after they end. */
    std::vector<std::int64_t> m_starts;
    /** The same per type, for the first m_denseTypes types. */
    std::vector<std::vector<std::int64_t>> m_typeStarts;
    /** Bucket ranges of the other types' tracks. */
    std::vector<Range> m_ranges;
    std::array<std::int64_t, BoundingBoxGrid::kSize * BoundingBoxGrid::kSize> m_cells{};
};

}  // namespace kest::analytics::db
