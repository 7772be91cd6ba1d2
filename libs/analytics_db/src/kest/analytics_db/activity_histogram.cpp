#include "activity_histogram.h"

#include <algorithm>
#include <cmath>

#include <kest/utils/assert.h>

namespace kest::analytics::db {

namespace {

template <typename T>
T floorDiv(T a, T b)
{
    const T quotient = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? quotient - 1 : quotient;
}

}  // namespace

ActivityHistogram::ActivityHistogram(const ActivityQuery& query, std::size_t denseTypes)
    : m_startMs(query.filter.timePeriod.startTimeMs),
      m_bucketMs(query.bucketMs),
      m_inverseBucket(query.bucketMs > 0 ? 1.0 / static_cast<double>(query.bucketMs) : 0),
      m_count(query.isValid() ? query.bucketCount() : 0),
      m_heatmap(query.heatmap),
      m_denseTypes(denseTypes),
      m_starts(static_cast<std::size_t>(m_count) + 1)
{
    KEST_ASSERT(query.isValid());
}

std::size_t ActivityHistogram::typeIndex(std::string_view type)
{
    const auto [it, added] = m_typeIndexes.try_emplace(std::string(type), m_types.size());
    if (added) {
        m_types.emplace_back(type);
        if (m_typeStarts.size() < m_denseTypes)
            m_typeStarts.emplace_back(m_starts.size());
    }
    return it->second;
}

std::int64_t ActivityHistogram::bucketOf(std::int64_t ms) const
{
    std::int64_t offset = 0;
    if (__builtin_sub_overflow(ms, m_startMs, &offset))
        return ms < m_startMs ? -1 : m_count;
    // Within 2^52 a double holds the offset exactly and its quotient is off by at most one.
    constexpr std::int64_t kExact = std::int64_t{1} << 52;
    std::int64_t bucket = 0;
    if (offset > -kExact && offset < kExact) {
        // Truncation rounds towards zero; the corrections make it round down, and exact.
        bucket = static_cast<std::int64_t>(static_cast<double>(offset) * m_inverseBucket);
        while (bucket * m_bucketMs > offset)
            --bucket;
        while ((bucket + 1) * m_bucketMs <= offset)
            ++bucket;
    } else {
        bucket = floorDiv(offset, m_bucketMs);
    }
    return std::clamp<std::int64_t>(bucket, -1, m_count);
}

void ActivityHistogram::add(std::size_t typeIndex, std::int64_t firstUs, std::int64_t lastUs)
{
    addMs(typeIndex, msOf(firstUs), msOf(lastUs));
}

void ActivityHistogram::addMs(std::size_t typeIndex, std::int64_t firstMs, std::int64_t lastMs)
{
    const std::int64_t first = std::max<std::int64_t>(bucketOf(firstMs), 0);
    const std::int64_t last = std::min(bucketOf(lastMs), m_count - 1);
    if (first > last || typeIndex >= m_types.size())
        return;
    ++m_starts[first];
    --m_starts[last + 1];
    if (typeIndex < m_typeStarts.size()) {
        auto& starts = m_typeStarts[typeIndex];
        ++starts[first];
        --starts[last + 1];
    } else {
        m_ranges.push_back({static_cast<std::uint32_t>(typeIndex), static_cast<std::int32_t>(first),
                            static_cast<std::int32_t>(last)});
    }
}

void ActivityHistogram::addCells(const BoundingBoxGrid& grid)
{
    if (!m_heatmap)
        return;
    for (int row = 0; row < BoundingBoxGrid::kSize; ++row) {
        for (int column = 0; column < BoundingBoxGrid::kSize; ++column) {
            if (grid.cell(column, row))
                ++m_cells[row * BoundingBoxGrid::kSize + column];
        }
    }
}

Activity ActivityHistogram::result() const
{
    Activity activity;
    activity.bucketMs = m_bucketMs;
    activity.buckets.resize(m_count);
    std::int64_t running = 0;
    for (std::int64_t i = 0; i < m_count; ++i) {
        running += m_starts[i];
        activity.buckets[i].startTimeMs = m_startMs + i * m_bucketMs;
        activity.buckets[i].tracks = running;
    }

    for (std::size_t type = 0; type < m_typeStarts.size(); ++type) {
        running = 0;
        for (std::int64_t i = 0; i < m_count; ++i) {
            running += m_typeStarts[type][i];
            if (running > 0)
                activity.buckets[i].byType.emplace(m_types[type], running);
        }
    }

    // The other types one after another, each summed over the buckets its tracks cover.
    std::vector<Range> ranges = m_ranges;
    std::sort(ranges.begin(), ranges.end(),
              [](const Range& a, const Range& b) { return a.type < b.type; });
    std::vector<std::int64_t> starts(m_starts.size());
    for (auto group = ranges.begin(); group != ranges.end();) {
        const auto end = std::find_if(
            group, ranges.end(), [type = group->type](const Range& r) { return r.type != type; });
        std::int32_t low = group->first;
        std::int32_t high = group->last;
        for (auto it = group; it != end; ++it) {
            ++starts[it->first];
            --starts[it->last + 1];
            low = std::min(low, it->first);
            high = std::max(high, it->last);
        }
        running = 0;
        for (std::int32_t i = low; i <= high; ++i) {
            running += starts[i];
            if (running > 0)
                activity.buckets[i].byType.emplace(m_types[group->type], running);
        }
        std::fill(starts.begin() + low, starts.begin() + high + 2, 0);
        group = end;
    }

    if (m_heatmap) {
        activity.heatmap.emplace();
        activity.heatmap->cells.assign(m_cells.begin(), m_cells.end());
    }
    return activity;
}

}  // namespace kest::analytics::db
