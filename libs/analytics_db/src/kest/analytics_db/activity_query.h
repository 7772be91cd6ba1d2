#pragma once

#include <cstdint>

#include "filter.h"

namespace kest::analytics::db {

/**
 * What an activity count counts: the tracks that `filter` selects (its limit, order and
 * full-track flag do not apply), in buckets of `bucketMs` from the start of its period, which
 * must have an end; with the heatmap when `heatmap` is set.
 */
struct ActivityQuery
{
    /** No answer has more buckets. */
    static constexpr std::int64_t kMaxBuckets = 10'000;

    Filter filter;
    std::int64_t bucketMs = 0;
    bool heatmap = false;

    /** The buckets that cover the period, the last one cut at its end; 0 without an end. */
    std::int64_t bucketCount() const;
    /**
     * A period with an end and a length, 1 to kMaxBuckets buckets of it, and the last bucket's
     * end within the range of times.
     */
    bool isValid() const;
};

}  // namespace kest::analytics::db
