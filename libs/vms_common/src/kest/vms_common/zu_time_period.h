#pragma once

#include <boost/describe/class.hpp>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string>

/**
 * A span of time: a start and a duration, in milliseconds since the Unix epoch. A duration of
 * kInfiniteDuration means the span has no end. JSON form: "startTimeMs", "durationMs".
 */
struct ZuTimePeriod
{
    static constexpr std::int64_t kInfiniteDuration = -1;
    static constexpr std::int64_t kMaxTimeMs = std::numeric_limits<std::int64_t>::max();

    std::int64_t startTimeMs = 0;
    std::int64_t durationMs = 0;

    ZuTimePeriod() = default;
    ZuTimePeriod(std::int64_t startTimeMs, std::int64_t durationMs)
        : startTimeMs(startTimeMs), durationMs(durationMs)
    {}
    ZuTimePeriod(std::chrono::milliseconds start, std::chrono::milliseconds duration)
        : startTimeMs(start.count()), durationMs(duration.count())
    {}

    /** The period from `startMs` up to (not including) `endMs`. */
    static ZuTimePeriod fromInterval(std::int64_t startMs, std::int64_t endMs);

    bool isInfinite() const { return durationMs == kInfiniteDuration; }
    /** Start plus duration; kMaxTimeMs for an infinite period (saturating, never overflows). */
    std::int64_t endTimeMs() const;
    std::chrono::milliseconds endTime() const { return std::chrono::milliseconds(endTimeMs()); }

    /** True when the two periods share some time (touching ends do not count). */
    bool intersects(const ZuTimePeriod& other) const;
    bool contains(std::int64_t timeMs) const;

    friend bool operator==(const ZuTimePeriod&, const ZuTimePeriod&) = default;
};

BOOST_DESCRIBE_STRUCT(ZuTimePeriod, (), (startTimeMs, durationMs))

/** "(startTimeMs: 1000, durationMs: 2000)"; an infinite duration is written "infinite". */
std::string toString(const ZuTimePeriod& period);
