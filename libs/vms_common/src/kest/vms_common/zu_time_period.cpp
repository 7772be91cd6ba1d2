#include "zu_time_period.h"

ZuTimePeriod ZuTimePeriod::fromInterval(std::int64_t startMs, std::int64_t endMs)
{
    if (endMs == kMaxTimeMs)
        return ZuTimePeriod(startMs, kInfiniteDuration);
    return ZuTimePeriod(startMs, endMs - startMs);
}

std::int64_t ZuTimePeriod::endTimeMs() const
{
    if (isInfinite())
        return kMaxTimeMs;
    std::int64_t end = 0;
    if (__builtin_add_overflow(startTimeMs, durationMs, &end))
        return durationMs > 0 ? kMaxTimeMs : std::numeric_limits<std::int64_t>::min();
    return end;
}

bool ZuTimePeriod::intersects(const ZuTimePeriod& other) const
{
    return startTimeMs < other.endTimeMs() && other.startTimeMs < endTimeMs();
}

bool ZuTimePeriod::contains(std::int64_t timeMs) const
{
    return timeMs >= startTimeMs && timeMs < endTimeMs();
}

std::string toString(const ZuTimePeriod& period)
{
    return "(startTimeMs: " + std::to_string(period.startTimeMs) + ", durationMs: " +
           (period.isInfinite() ? std::string("infinite") : std::to_string(period.durationMs)) +
           ")";
}
