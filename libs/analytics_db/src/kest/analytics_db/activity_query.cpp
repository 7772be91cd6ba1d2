#include "activity_query.h"

namespace kest::analytics::db {

std::int64_t ActivityQuery::bucketCount() const
{
    const ZuTimePeriod& period = filter.timePeriod;
    if (bucketMs <= 0 || period.isInfinite() || period.durationMs <= 0)
        return 0;
    return period.durationMs / bucketMs + (period.durationMs % bucketMs != 0 ? 1 : 0);
}

bool ActivityQuery::isValid() const
{
    const std::int64_t count = bucketCount();
    if (count < 1 || count > kMaxBuckets)
        return false;
    // Every bucket's start and end must be a time: the last one ends past the period's end.
    std::int64_t span = 0;
    std::int64_t end = 0;
    return !__builtin_mul_overflow(count, bucketMs, &span) &&
           !__builtin_add_overflow(filter.timePeriod.startTimeMs, span, &end);
}

}  // namespace kest::analytics::db
