#include "value_rules.h"

#include <QByteArray>
#include <array>
#include <charconv>

#include <kest/analytics_db/activity_query.h>
#include <kest/analytics_db/filter_url_query.h>

namespace kest::cloud::storage::metadatadb {

using kest::common::metadata::ObjectMetadataPacket;
using kest::common::metadata::Rect;

namespace {

/** The name space of untracked objects' ids (a version 5 UUID's namespace); never change it. */
const QUuid kUntrackedObjectNamespace("{9c4e2a71-5d3b-4f08-b6a1-e07d52c8f3a4}");

std::string numberText(double value)
{
    std::array<char, 32> buffer{};
    const auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    return std::string(buffer.data(), end);
}

/** "x: 5 is not within 0 to 1, ..." for the first member of `box` out of bounds; else empty. */
std::string boxProblem(const Rect& box)
{
    const std::array<std::pair<const char*, double>, 4> members{
        {{"x", box.x}, {"y", box.y}, {"width", box.width}, {"height", box.height}}};
    for (const auto& [name, value] : members) {
        if (!kest::analytics::db::isFrameFraction(value)) {
            return std::string(name) + ": " + numberText(value) +
                   " is not within 0 to 1, a fraction of the frame's size";
        }
    }
    return {};
}

/** Both a packet's start and its duration: so its end always fits, with room to round it. */
bool withinTimeRange(std::int64_t us)
{
    return us >= 0 && us <= ValueRules::kMaxTimeUs;
}

std::string at(std::size_t index)
{
    // Appended, not "[" + ...: GCC 12 at -O3 warns of an overlap (-Wrestrict) that is none.
    std::string text = "[";
    text += std::to_string(index);
    text += ']';
    return text;
}

}  // namespace

std::string ValueRules::preparePackets(std::vector<ObjectMetadataPacket>* packets,
                                       std::size_t* untrackedObjects)
{
    *untrackedObjects = 0;
    for (std::size_t p = 0; p < packets->size(); ++p) {
        ObjectMetadataPacket& packet = (*packets)[p];
        if (!withinTimeRange(packet.timestampUs)) {
            return at(p) + ".timestampUs: " + std::to_string(packet.timestampUs) +
                   " is not within 0 to 2^62-1 microseconds since 1970-01-01 00:00 UTC";
        }
        if (!withinTimeRange(packet.durationUs)) {
            return at(p) + ".durationUs: " + std::to_string(packet.durationUs) +
                   " is not within 0 to 2^62-1 microseconds";
        }
        for (std::size_t o = 0; o < packet.objectMetadataList.size(); ++o) {
            auto& object = packet.objectMetadataList[o];
            Rect& box = object.boundingBox;
            if (std::string problem = boxProblem(box); !problem.empty())
                return at(p) + ".objectMetadataList" + at(o) + ".boundingBox." + problem;
            // Detectors round: a box that overshoots the frame means its edge.
            box.width = std::min(box.width, 1 - box.x);
            box.height = std::min(box.height, 1 - box.y);

            if (object.trackId.isNull()) {
                object.trackId = untrackedObjectTrackId(packet.deviceId, packet.timestampUs, o);
                ++*untrackedObjects;
            }
        }
    }
    return {};
}

std::string ValueRules::checkFilter(const kest::analytics::db::Filter& filter)
{
    if (filter.timePeriod.durationMs < ZuTimePeriod::kInfiniteDuration) {
        return "filter.timePeriod.durationMs: " + std::to_string(filter.timePeriod.durationMs) +
               " is negative: 0 or more milliseconds, or -1 for no end, is expected";
    }
    if (filter.boundingBox) {
        if (std::string problem = boxProblem(*filter.boundingBox); !problem.empty())
            return "filter.boundingBox." + problem;
    }
    return {};
}

std::string ValueRules::checkActivity(const ActivityRequestData& request)
{
    using kest::analytics::db::ActivityQuery;
    if (std::string problem = checkFilter(request.filter); !problem.empty())
        return problem;
    const ZuTimePeriod& period = request.filter.timePeriod;
    if (period.isInfinite()) {
        return "filter.timePeriod.durationMs: the period has no end: activity is counted over a "
               "period of 1 or more milliseconds";
    }
    if (period.durationMs == 0) {
        return "filter.timePeriod.durationMs: 0: activity is counted over a period of 1 or more "
               "milliseconds";
    }
    if (request.bucketMs && *request.bucketMs <= 0) {
        return "bucketMs: " + std::to_string(*request.bucketMs) +
               " is not a positive number of milliseconds";
    }
    ActivityQuery query;
    query.filter.timePeriod = period;
    query.bucketMs = request.bucketWidthMs();
    if (query.bucketCount() > ActivityQuery::kMaxBuckets) {
        const std::int64_t least = period.durationMs / ActivityQuery::kMaxBuckets +
                                   (period.durationMs % ActivityQuery::kMaxBuckets != 0);
        return "bucketMs: " + std::to_string(query.bucketMs) + " cuts the period into " +
               std::to_string(query.bucketCount()) + " buckets, more than the " +
               std::to_string(ActivityQuery::kMaxBuckets) +
               " an answer may have: " + std::to_string(least) +
               " or more is expected for this period";
    }
    if (!query.isValid()) {
        return "filter.timePeriod.startTimeMs: " + std::to_string(period.startTimeMs) +
               ": the buckets of the period would end past the latest time there is";
    }
    return {};
}

ZuUuid ValueRules::untrackedObjectTrackId(const ZuUuid& deviceId, std::int64_t timestampUs,
                                          std::size_t index)
{
    const QByteArray name = QByteArray::fromStdString(deviceId.toStdString()) + '/' +
                            QByteArray::number(static_cast<qlonglong>(timestampUs)) + '/' +
                            QByteArray::number(static_cast<qulonglong>(index));
    return ZuUuid(QUuid::createUuidV5(kUntrackedObjectNamespace, name));
}

}  // namespace kest::cloud::storage::metadatadb
