#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <kest/cloud/storage/controller/activity_answer.h>
#include <kest/vms_common/zu_time_period.h>

namespace kest::cloud::storage::metadatadb {

/**
 * Draws an activity answer as an SVG picture: the timeline of bars per bucket, stacked by type,
 * with axes labelled in UTC and a legend, and the heatmap beside it when the answer has one.
 * Each bucket is a group carrying its period ("data-start-ms", "data-end-ms") and a tooltip, so
 * that a page showing the picture inline can narrow a search to a bucket that is clicked.
 */
class ActivityChart
{
public:
    static constexpr const char* kContentType = "image/svg+xml";
    /** Types drawn in colours of their own, the most frequent first; the rest are "other". */
    static constexpr std::size_t kColouredTypes = 9;

    /** `period` is the counted one: its end cuts the last bucket. */
    explicit ActivityChart(const ZuTimePeriod& period);

    std::string svg(const ActivityAnswer& answer) const;

    /** A step of the time axis: some ten labelled ticks or fewer over `spanMs`. */
    static std::int64_t timeStepMs(std::int64_t spanMs);
    /** The label of a tick at `timeMs`, as precise as `stepMs` needs ("10:30", "05-14 10:30"). */
    static std::string timeLabel(std::int64_t timeMs, std::int64_t stepMs, bool withDate);
    /** A step of the count axis: 1, 2 or 5 times a power of ten, some five ticks up to `max`. */
    static std::int64_t countStep(std::int64_t max);

private:
    ZuTimePeriod m_period;
};

}  // namespace kest::cloud::storage::metadatadb
