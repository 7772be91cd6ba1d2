#include "track_reader.h"

#include <sqlite3.h>

#include <QString>
#include <algorithm>
#include <limits>

#include <kest/utils/log/log.h>

#include "bounding_box_grid.h"
#include "record_codec.h"
#include "storage_schema.h"
#include "track_aggregate.h"
#include "track_row.h"

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

/** For b >= 0. */
std::int64_t saturatingSub(std::int64_t a, std::int64_t b)
{
    std::int64_t out = 0;
    return __builtin_sub_overflow(a, b, &out) ? kMinTime : out;
}

/** For b >= 0. */
std::int64_t saturatingAdd(std::int64_t a, std::int64_t b)
{
    std::int64_t out = 0;
    return __builtin_add_overflow(a, b, &out) ? kMaxTime : out;
}

/** Parameter numbers of the type list, then of the device list of the row id walk. */
constexpr int kFirstTypeParam = 100;

void gridHits(sqlite3_context* context, int, sqlite3_value** args)
{
    const auto bytes = [](sqlite3_value* v) {
        const auto* data = static_cast<const char*>(sqlite3_value_blob(v));
        return data ? std::string_view(data, sqlite3_value_bytes(v)) : std::string_view();
    };
    sqlite3_result_int(context, BoundingBoxGrid::bytesIntersect(bytes(args[0]), bytes(args[1])));
}

}  // namespace

struct TrackReader::Query
{
    std::string sql;
    std::vector<std::int64_t> devices;
    /** Values of ?4, one index range each: the devices, else the types, else one unused. */
    std::vector<std::int64_t> partitions;
    std::vector<std::int64_t> types;
    std::string trackId;
    std::string engineId;
    std::string gridMask;
    std::string fts;
    std::int64_t startUs = 0;
    std::int64_t endUs = kMaxTime;
    std::int64_t lowFirstUs = kMinTime;
    std::int64_t limit = -1;
    bool ascending = false;
    /** Of the row id walk: the row ids between these, both excluded, can match. */
    std::int64_t lowRowId = kMinTime;
    std::int64_t highRowId = kMaxTime;
    /** kMaxLagKey of the storage; negative when a store does not know it. */
    std::int64_t maxLagUs = -1;
    bool walking = false;

    int firstDeviceParam() const { return kFirstTypeParam + static_cast<int>(types.size()); }
};

DBResult TrackReader::open(const std::string& file, const sql::ConnectionOptions& options)
{
    if (auto r = m_db.open(file, options, /*create*/ false); r != DBResult::ok)
        return r;
    const int rc = sqlite3_create_function_v2(m_db.handle(), "grid_hits", 2,
                                              SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS,
                                              nullptr, &gridHits, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK)
        return m_db.fail(rc, "grid_hits");
    const int rc2 = sqlite3_create_function_v2(m_db.handle(), "text_hits", 1, SQLITE_UTF8, this,
                                               &TrackReader::textHits, nullptr, nullptr, nullptr);
    if (rc2 != SQLITE_OK)
        return m_db.fail(rc2, "text_hits");
    if (!m_matcher.open(m_db.handle()))
        return m_db.fail(SQLITE_ERROR, "fts5 tokenizer");
    return m_db.exec("PRAGMA query_only = 1");
}

std::string TrackReader::ftsQuery(const std::vector<std::string>& words)
{
    std::string query;
    for (const std::string& word : words) {
        if (!query.empty())
            query += ' ';
        query += '"' + word + "\"*";
    }
    return query;
}

void TrackReader::textHits(sqlite3_context* context, int, sqlite3_value** args)
{
    auto* self = static_cast<TrackReader*>(sqlite3_user_data(context));
    if (self->m_matcher.checks() >= self->m_textScanBudget) {
        self->m_textBudgetExceeded = true;
        sqlite3_result_error(context, "text scan budget exceeded", -1);
        return;
    }
    const auto* data = static_cast<const char*>(sqlite3_value_blob(args[0]));
    const std::string_view blob = data ? std::string_view(data, sqlite3_value_bytes(args[0])) : "";
    sqlite3_result_int(context, self->m_matcher.matches(blob));
}

ResultCode TrackReader::lookup(const Filter& filter, std::vector<ObjectTrackEx>* tracks)
{
    tracks->clear();
    // One read transaction, so that every query below sees the same committed state.
    if (m_db.exec("BEGIN") != DBResult::ok)
        return ResultCode::error;
    struct End
    {
        sql::Database& db;
        ~End()
        {
            db.resetCached();
            db.exec("COMMIT");
        }
    } end{m_db};

    m_words = TextMatcher::words(filter.freeText);
    m_matcher.setQuery(m_words);
    m_textBudgetExceeded = false;
    m_walkGaveUp = false;
    bool rare = false;
    if (!m_words.empty()) {
        if (isRareText(&rare) != DBResult::ok)
            return ResultCode::error;
    }
    // Rare words start where a row by row test that found nothing would have gone next.
    DBResult result = DBResult::ok;
    if (!rare)
        result = run(filter, m_words.empty() ? TextMode::none : TextMode::scan, tracks);
    if (rare || (result != DBResult::ok && m_textBudgetExceeded)) {
        tracks->clear();
        m_db.resetCached();
        result = run(filter, TextMode::rowWalk, tracks);
        if (result == DBResult::ok && m_walkGaveUp) {
            tracks->clear();
            m_db.resetCached();
            result = run(filter, TextMode::index, tracks);
        }
    }
    if (result != DBResult::ok) {
        tracks->clear();
        return ResultCode::error;
    }
    return ResultCode::ok;
}

DBResult TrackReader::isRareText(bool* rare)
{
    *rare = false;
    if (m_rareTextMatches <= 0)
        return DBResult::ok;
    // A one-letter prefix has no prefix index: FTS5 would merge the lists of every word starting
    // with it ("t" of "t-shirt"), which costs more than the row by row test it is meant to spare.
    for (const std::string& word : m_words) {
        if (QString::fromStdString(word).size() < 2)
            return DBResult::ok;
    }
    auto* s = m_db.cached(
        "SELECT count(*) FROM (SELECT rowid FROM track_text WHERE track_text MATCH ? LIMIT ?)");
    if (!s)
        return m_db.lastResult();
    s->bindText(1, ftsQuery(m_words));
    s->bind(2, m_rareTextMatches);
    if (s->step())
        *rare = s->int64(0) < m_rareTextMatches;
    return s->result();
}

DBResult TrackReader::run(const Filter& filter, TextMode textMode,
                          std::vector<ObjectTrackEx>* tracks)
{
    Query q;
    bool matchesNothing = false;
    if (auto r = keysOf(filter, textMode, &q, &matchesNothing); r != DBResult::ok)
        return r;
    if (matchesNothing)
        return DBResult::ok;

    std::vector<std::int64_t> rowIds;
    if (textMode == TextMode::rowWalk) {
        // Without a limit every match is needed anyway; without the lag nothing bounds the walk.
        // Devices have index ranges small enough to test against the set of all matches, while
        // the walk would read matches of every device to find those of a few.
        if (q.limit < 0 || q.maxLagUs < 0 || !q.devices.empty()) {
            m_walkGaveUp = true;
            return DBResult::ok;
        }
        if (auto r = rowBounds(&q); r != DBResult::ok)
            return r;
        if (auto r = walk(q, tracks, &rowIds, &m_walkGaveUp); r != DBResult::ok || m_walkGaveUp)
            return r;
    } else if (q.partitions.empty()) {
        if (auto r = select(q, 0, tracks, &rowIds); r != DBResult::ok)
            return r;
    } else {
        // One index range per device (or type), each already limited, then merged: cost
        // follows the answer, not the number of tracks of the devices.
        std::vector<std::pair<std::pair<std::int64_t, std::int64_t>, ObjectTrackEx>> merged;
        for (const std::int64_t partition : q.partitions) {
            std::vector<ObjectTrackEx> part;
            std::vector<std::int64_t> partIds;
            if (auto r = select(q, partition, &part, &partIds); r != DBResult::ok)
                return r;
            for (std::size_t i = 0; i < part.size(); ++i) {
                merged.push_back({{part[i].firstAppearanceTimeUs, partIds[i]}, std::move(part[i])});
            }
        }
        std::sort(merged.begin(), merged.end(), [&](const auto& a, const auto& b) {
            return q.ascending ? a.first < b.first : b.first < a.first;
        });
        if (q.limit >= 0 && merged.size() > static_cast<std::size_t>(q.limit))
            merged.resize(q.limit);
        for (auto& [key, track] : merged) {
            rowIds.push_back(key.second);
            tracks->push_back(std::move(track));
        }
    }

    if (filter.needFullTrack) {
        for (std::size_t i = 0; i < tracks->size(); ++i) {
            if (auto r = loadPositions(rowIds[i], &(*tracks)[i]); r != DBResult::ok)
                return r;
        }
    }
    return DBResult::ok;
}

DBResult TrackReader::keysOf(const Filter& filter, TextMode textMode, Query* q,
                             bool* matchesNothing)
{
    for (const ZuUuid& device : filter.deviceIds) {
        auto* s = m_db.cached("SELECT id FROM device WHERE guid = ?");
        if (!s)
            return m_db.lastResult();
        s->bindBlob(1, encodeUuid(device));
        if (s->step())
            q->devices.push_back(s->int64(0));
        else if (s->result() != DBResult::ok)
            return s->result();
    }
    if (!filter.deviceIds.empty() && q->devices.empty())
        *matchesNothing = true;

    for (const std::string& type : filter.objectTypeId) {
        auto* s = m_db.cached("SELECT id FROM object_type WHERE name = ?");
        if (!s)
            return m_db.lastResult();
        s->bindText(1, type);
        if (s->step())
            q->types.push_back(s->int64(0));
        else if (s->result() != DBResult::ok)
            return s->result();
    }
    if (!filter.objectTypeId.empty() && q->types.empty())
        *matchesNothing = true;

    std::int64_t maxSpan = 0;
    if (auto* s = m_db.cached("SELECT key, value FROM meta WHERE key IN ('maxSpanUs', ?)")) {
        s->bindText(1, kMaxLagKey);
        while (s->step()) {
            if (s->text(0) == kMaxLagKey)
                q->maxLagUs = s->int64(1);
            else
                maxSpan = s->int64(1);
        }
        if (s->result() != DBResult::ok)
            return s->result();
    } else {
        return m_db.lastResult();
    }

    q->startUs = msToUs(filter.timePeriod.startTimeMs);
    q->endUs = filter.timePeriod.isInfinite() ? kMaxTime : msToUs(filter.timePeriod.endTimeMs());
    q->lowFirstUs = saturatingSub(q->startUs, maxSpan);
    if (filter.timePeriod.durationMs < 0 && !filter.timePeriod.isInfinite())
        *matchesNothing = true;
    q->limit = filter.maxObjectTracksToSelect > 0 ? filter.maxObjectTracksToSelect : -1;
    q->ascending = filter.sortOrder == SortOrder::asc;

    bool textScan = false;
    std::string where = "t.first_us < ?1 AND t.first_us >= ?2 AND t.last_us >= ?3";
    std::string tables = kTrackTables;
    const bool walking = textMode == TextMode::rowWalk;
    const bool byType =
        !walking && filter.deviceIds.empty() && !q->types.empty() && filter.objectTrackId.isNull();
    // Without statistics SQLite cannot tell a selective device from a common type, so the
    // index of the partition is named.
    q->walking = walking;
    if (walking) {
        // CROSS JOIN keeps FTS5 outermost, so that rows come in row id order.
        tables = std::string("track_text CROSS JOIN ") + kTrackTables;
        where =
            "track_text MATCH ?8 AND track_text.rowid > ?20 AND track_text.rowid < ?21 AND "
            "t.id = track_text.rowid AND " +
            where;
        q->fts = ftsQuery(m_words);
        if (!q->devices.empty()) {
            where += " AND t.device IN (";
            for (std::size_t i = 0; i < q->devices.size(); ++i)
                where += (i ? ", ?" : "?") + std::to_string(q->firstDeviceParam() + i);
            where += ")";
        }
    } else if (!filter.deviceIds.empty()) {
        where += " AND t.device = ?4";
        if (filter.objectTrackId.isNull())
            tables.replace(tables.find("track t"), 7, "track t INDEXED BY track_device_first");
        q->partitions = q->devices;
    } else if (byType) {
        where += " AND t.type = ?4";
        tables.replace(tables.find("track t"), 7,
                       filter.withBestShotOnly ? "track t INDEXED BY track_type_best_shot_first"
                                               : "track t INDEXED BY track_type_first");
        q->partitions = q->types;
    }
    if (!filter.objectTrackId.isNull()) {
        q->trackId = encodeUuid(filter.objectTrackId);
        where += " AND t.guid = ?5";
    }
    if (!filter.analyticsEngineId.isNull()) {
        q->engineId = encodeUuid(filter.analyticsEngineId);
        where += " AND t.engine = ?6";
    }
    if (filter.boundingBox) {
        q->gridMask = BoundingBoxGrid::ofRect(*filter.boundingBox).toBytes();
        where += " AND grid_hits(t.grid, ?7)";
    }
    if (textMode == TextMode::index) {
        q->fts = ftsQuery(m_words);
        where += " AND t.id IN (SELECT rowid FROM track_text WHERE track_text MATCH ?8)";
    } else if (textMode == TextMode::scan) {
        // Last, so that it runs only on rows that passed every other test.
        textScan = true;
    }
    if (filter.withBestShotOnly)
        where += " AND t.best_kind != 0";
    if (!q->types.empty() && !byType) {
        where += " AND t.type IN (";
        for (std::size_t i = 0; i < q->types.size(); ++i)
            where += (i ? ", ?" : "?") + std::to_string(kFirstTypeParam + i);
        where += ")";
    }
    if (textScan)
        where += " AND text_hits(t.attributes)";
    const char* order = q->ascending ? "ASC" : "DESC";
    q->sql = std::string("SELECT ") + kTrackColumns + " FROM " + tables + " WHERE " + where +
             (walking ? std::string(" ORDER BY track_text.rowid ") + order
                      : std::string(" ORDER BY t.first_us ") + order + ", t.id " + order) +
             " LIMIT ?9";
    return DBResult::ok;
}

namespace {

void bindQuery(sql::Statement* s, const TrackReader::Query& q, std::int64_t partition,
               std::int64_t limit)
{
    s->bind(1, q.endUs);
    s->bind(2, q.lowFirstUs);
    s->bind(3, q.startUs);
    s->bind(4, partition);
    if (!q.trackId.empty())
        s->bindBlob(5, q.trackId);
    if (!q.engineId.empty())
        s->bindBlob(6, q.engineId);
    if (!q.gridMask.empty())
        s->bindBlob(7, q.gridMask);
    if (!q.fts.empty())
        s->bindText(8, q.fts);
    s->bind(9, limit);
    for (std::size_t i = 0; i < q.types.size(); ++i)
        s->bind(static_cast<int>(kFirstTypeParam + i), q.types[i]);
    for (std::size_t i = 0; i < q.devices.size() && q.walking; ++i)
        s->bind(static_cast<int>(q.firstDeviceParam() + i), q.devices[i]);
}

}  // namespace

DBResult TrackReader::select(const Query& q, std::int64_t partition,
                             std::vector<ObjectTrackEx>* out, std::vector<std::int64_t>* rowIds)
{
    auto* s = m_db.cached(q.sql);
    if (!s)
        return m_db.lastResult();
    bindQuery(s, q, partition, q.limit);
    while (s->step()) {
        std::int64_t rowId = 0;
        out->push_back(readTrackRow(*s, &rowId).toTrack());
        rowIds->push_back(rowId);
    }
    return s->result();
}

DBResult TrackReader::rowBounds(Query* q)
{
    // A row whose first appearance is at least the lag past the end has, with every row stored
    // after it, a first appearance at or past the end; likewise before the start.
    if (q->endUs != kMaxTime) {
        auto* s = m_db.cached(
            "SELECT min(id) FROM (SELECT id FROM track INDEXED BY track_first "
            "WHERE first_us >= ? ORDER BY first_us LIMIT 16)");
        if (!s)
            return m_db.lastResult();
        s->bind(1, saturatingAdd(q->endUs, q->maxLagUs));
        if (s->step() && !s->isNull(0))
            q->highRowId = s->int64(0);
        if (s->result() != DBResult::ok)
            return s->result();
    }
    const std::int64_t low = saturatingSub(q->lowFirstUs, q->maxLagUs);
    if (low != kMinTime) {
        auto* s = m_db.cached(
            "SELECT max(id) FROM (SELECT id FROM track INDEXED BY track_first "
            "WHERE first_us < ? ORDER BY first_us DESC LIMIT 16)");
        if (!s)
            return m_db.lastResult();
        s->bind(1, low);
        if (s->step() && !s->isNull(0))
            q->lowRowId = s->int64(0);
        if (s->result() != DBResult::ok)
            return s->result();
    }
    return DBResult::ok;
}

DBResult TrackReader::walk(const Query& q, std::vector<ObjectTrackEx>* out,
                           std::vector<std::int64_t>* rowIds, bool* gaveUp)
{
    struct Row
    {
        std::int64_t id = 0;
        TrackAggregate track;
    };
    const auto before = [&q](const Row& a, const Row& b) {
        const auto ka = std::pair(a.track.firstUs, a.id);
        const auto kb = std::pair(b.track.firstUs, b.id);
        return q.ascending ? ka < kb : kb < ka;
    };
    auto* s = m_db.cached(q.sql);
    if (!s)
        return m_db.lastResult();
    const std::int64_t batch = std::max<std::int64_t>(2 * q.limit, 256);
    const auto limit = static_cast<std::size_t>(q.limit);
    std::vector<Row> best;
    std::int64_t cursor = q.ascending ? q.lowRowId : q.highRowId;
    // The first appearance reached by the walk, the latest one walking down, else the earliest:
    // rows further on lie within the lag of it.
    std::int64_t reached = q.ascending ? kMinTime : kMaxTime;
    std::int64_t read = 0;
    for (;;) {
        s->reset();
        bindQuery(s, q, 0, batch);
        s->bind(20, q.ascending ? cursor : q.lowRowId);
        s->bind(21, q.ascending ? q.highRowId : cursor);
        std::int64_t rows = 0;
        while (s->step()) {
            Row row;
            row.track = readTrackRow(*s, &row.id);
            cursor = row.id;
            reached = q.ascending ? std::max(reached, row.track.firstUs)
                                  : std::min(reached, row.track.firstUs);
            best.push_back(std::move(row));
            ++rows;
        }
        if (s->result() != DBResult::ok)
            return s->result();
        read += rows;
        if (best.size() >= limit) {
            std::partial_sort(best.begin(), best.begin() + limit, best.end(), before);
            best.resize(limit);
        }
        if (rows < batch)
            break;
        // Rows further on have larger ids walking up, smaller ones walking down, so a tie
        // on first appearance ranks them after the rows found.
        if (best.size() == limit) {
            const std::int64_t worst = best.back().track.firstUs;
            if (q.ascending ? worst <= saturatingSub(reached, q.maxLagUs)
                            : worst >= saturatingAdd(reached, q.maxLagUs)) {
                break;
            }
        }
        if (read >= kRowWalkBudget) {
            *gaveUp = true;
            return DBResult::ok;
        }
    }
    std::sort(best.begin(), best.end(), before);
    for (Row& row : best) {
        rowIds->push_back(row.id);
        out->push_back(row.track.toTrack());
    }
    return DBResult::ok;
}

DBResult TrackReader::loadPositions(std::int64_t rowId, ObjectTrackEx* track)
{
    auto* s = m_db.cached("SELECT data FROM track_position WHERE track = ?");
    if (!s)
        return m_db.lastResult();
    s->bind(1, rowId);
    while (s->step())
        decodePositions(s->blob(0), &track->objectPositionSequence);
    sortPositions(&track->objectPositionSequence);
    return s->result();
}

}  // namespace kest::analytics::db
