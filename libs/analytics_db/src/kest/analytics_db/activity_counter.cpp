#include "activity_counter.h"

#include <limits>
#include <unordered_map>

#include <kest/utils/assert.h>

#include "activity_histogram.h"
#include "bounding_box_grid.h"
#include "record_codec.h"
#include "text_matcher.h"
#include "track_reader.h"

namespace kest::analytics::db {

using sql::DBResult;

namespace {

constexpr std::int64_t kMaxTime = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMinTime = std::numeric_limits<std::int64_t>::min();

std::int64_t msToUs(std::int64_t ms)
{
    if (ms > kMaxTime / 1000)
        return kMaxTime;
    if (ms < kMinTime / 1000)
        return kMinTime;
    return ms * 1000;
}

std::int64_t saturatingSub(std::int64_t a, std::int64_t b)
{
    std::int64_t out = 0;
    return __builtin_sub_overflow(a, b, &out) ? kMinTime : out;
}

/** "?first, ?first+1, ..." for `count` parameters. */
std::string parameterList(int first, std::size_t count)
{
    std::string list;
    for (std::size_t i = 0; i < count; ++i)
        list += (i ? ", ?" : "?") + std::to_string(first + static_cast<int>(i));
    return list;
}

}  // namespace

ActivityCounter::ActivityCounter(sql::Database& db) : m_db(db) {}

ResultCode ActivityCounter::count(const ActivityQuery& query, Activity* activity)
{
    if (!query.isValid()) {
        KEST_ASSERT(false, "An activity count needs a valid query");
        return ResultCode::error;
    }
    // One read transaction, so that the dictionaries and the rows are of the same commit.
    if (m_db.exec("BEGIN") != DBResult::ok)
        return ResultCode::error;
    ActivityHistogram histogram(query);
    const DBResult result = run(query, &histogram);
    m_db.resetCached();
    m_db.exec("COMMIT");
    if (result != DBResult::ok)
        return ResultCode::error;
    *activity = histogram.result();
    return ResultCode::ok;
}

DBResult ActivityCounter::run(const ActivityQuery& query, ActivityHistogram* histogram)
{
    const Filter& filter = query.filter;

    // Dictionary keys of the filter's devices and types; a name the store never saw selects none.
    std::vector<std::int64_t> devices;
    for (const ZuUuid& device : filter.deviceIds) {
        auto* s = m_db.cached("SELECT id FROM device WHERE guid = ?");
        if (!s)
            return m_db.lastResult();
        s->bindBlob(1, encodeUuid(device));
        if (s->step())
            devices.push_back(s->int64(0));
        else if (s->result() != DBResult::ok)
            return s->result();
    }
    if (!filter.deviceIds.empty() && devices.empty())
        return DBResult::ok;

    // Every type's name once, rather than a join per row.
    std::unordered_map<std::int64_t, std::size_t> typeIndexes;
    std::vector<std::int64_t> types;
    {
        auto* s = m_db.cached("SELECT id, name FROM object_type");
        if (!s)
            return m_db.lastResult();
        while (s->step()) {
            const std::string name(s->text(1));
            if (filter.objectTypeId.empty() || filter.objectTypeId.contains(name)) {
                types.push_back(s->int64(0));
                typeIndexes.emplace(s->int64(0), histogram->typeIndex(name));
            }
        }
        if (s->result() != DBResult::ok)
            return s->result();
    }
    if (!filter.objectTypeId.empty() && types.empty())
        return DBResult::ok;

    std::int64_t maxSpanUs = 0;
    {
        auto* s = m_db.cached("SELECT value FROM meta WHERE key = 'maxSpanUs'");
        if (!s)
            return m_db.lastResult();
        if (s->step())
            maxSpanUs = s->int64(0);
        if (s->result() != DBResult::ok)
            return s->result();
    }

    const std::vector<std::string> words = TextMatcher::words(filter.freeText);
    const std::int64_t startUs = msToUs(filter.timePeriod.startTimeMs);
    const std::int64_t endUs = msToUs(filter.timePeriod.endTimeMs());

    // ?1 end, ?2 lowest first appearance, ?3 start; then the optional tests, then the lists.
    std::string where = "t.first_us < ?1 AND t.first_us >= ?2 AND t.last_us >= ?3";
    if (!filter.objectTrackId.isNull())
        where += " AND t.guid = ?4";
    if (!filter.analyticsEngineId.isNull())
        where += " AND t.engine = ?5";
    if (filter.boundingBox)
        where += " AND grid_hits(t.grid, ?6)";
    if (!words.empty())
        where += " AND t.id IN (SELECT rowid FROM track_text WHERE track_text MATCH ?7)";
    if (filter.withBestShotOnly)
        where += " AND t.best_kind != 0";
    constexpr int kFirstListParam = 10;
    if (!devices.empty())
        where += " AND t.device IN (" + parameterList(kFirstListParam, devices.size()) + ")";
    const int firstTypeParam = kFirstListParam + static_cast<int>(devices.size());
    if (!filter.objectTypeId.empty())
        where += " AND t.type IN (" + parameterList(firstTypeParam, types.size()) + ")";
    const std::string sql = std::string("SELECT t.type, t.first_us, t.last_us") +
                            (query.heatmap ? ", t.grid" : "") + " FROM track t WHERE " + where;

    auto* s = m_db.cached(sql);
    if (!s)
        return m_db.lastResult();
    s->bind(1, endUs);
    s->bind(2, saturatingSub(startUs, maxSpanUs));
    s->bind(3, startUs);
    if (!filter.objectTrackId.isNull())
        s->bindBlob(4, encodeUuid(filter.objectTrackId));
    if (!filter.analyticsEngineId.isNull())
        s->bindBlob(5, encodeUuid(filter.analyticsEngineId));
    if (filter.boundingBox)
        s->bindBlob(6, BoundingBoxGrid::ofRect(*filter.boundingBox).toBytes());
    if (!words.empty())
        s->bindText(7, TrackReader::ftsQuery(words));
    for (std::size_t i = 0; i < devices.size(); ++i)
        s->bind(kFirstListParam + static_cast<int>(i), devices[i]);
    if (!filter.objectTypeId.empty()) {
        for (std::size_t i = 0; i < types.size(); ++i)
            s->bind(firstTypeParam + static_cast<int>(i), types[i]);
    }
    while (s->step()) {
        const auto type = typeIndexes.find(s->int64(0));
        if (type == typeIndexes.end())
            continue;  //< A type added after the dictionary was read; not of this commit.
        histogram->add(type->second, s->int64(1), s->int64(2));
        if (query.heatmap)
            histogram->addCells(BoundingBoxGrid::fromBytes(s->blob(3)));
    }
    return s->result();
}

}  // namespace kest::analytics::db
