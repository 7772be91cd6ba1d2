#include "postgres_store.h"

#include <libpq-fe.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <kest/analytics_db/text_matcher.h>
#include <kest/analytics_db/time_arithmetic.h>

namespace kest::bench {

using analytics::db::Filter;
using analytics::db::msToUs;
using analytics::db::SortOrder;
using analytics::db::TrackAggregate;
using common::metadata::Rect;

namespace {

constexpr std::int64_t kMaxTime = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMinTime = std::numeric_limits<std::int64_t>::min();

constexpr const char* kSchema = R"sql(
DROP TABLE IF EXISTS tracks, track_positions;
CREATE TABLE tracks(
    track_id uuid NOT NULL,
    device_id uuid NOT NULL,
    type_id text NOT NULL,
    engine_id uuid NOT NULL,
    first_us bigint NOT NULL,
    last_us bigint NOT NULL,
    area box NOT NULL,
    best_shot_us bigint NOT NULL,
    best_kind smallint NOT NULL,
    best_shot box,
    best_stream smallint NOT NULL,
    attributes jsonb NOT NULL);
CREATE UNIQUE INDEX tracks_track_id ON tracks(track_id);
CREATE INDEX tracks_device_first ON tracks(device_id, first_us);
CREATE INDEX tracks_type ON tracks(type_id);
CREATE INDEX tracks_text ON tracks USING gin (jsonb_to_tsvector('simple', attributes, '["string"]'));
CREATE INDEX tracks_area ON tracks USING gist (area);
CREATE TABLE track_positions(
    track_id uuid NOT NULL,
    timestamps bigint[] NOT NULL,
    durations bigint[] NOT NULL,
    boxes float8[] NOT NULL);
CREATE INDEX track_positions_track ON track_positions(track_id);
CREATE TEMP TABLE tracks_stage (LIKE tracks) ON COMMIT DELETE ROWS;
)sql";

// What the plans of the search shapes ask for on top of the indexes above. The newest or oldest
// tracks of all devices with a common word walk first appearance alone, and test each row's
// words: kept in a column, not made from the JSON row by row (which took 4 us a row), and
// indexed there instead of as an expression. A region of one device is one GiST lookup on
// both (btree_gist ships with the server).
constexpr const char* kTuning = R"sql(
CREATE EXTENSION IF NOT EXISTS btree_gist;
ALTER TABLE tracks ADD COLUMN words tsvector
    GENERATED ALWAYS AS (jsonb_to_tsvector('simple', attributes, '["string"]')) STORED;
CREATE INDEX tracks_words ON tracks USING gin (words);
DROP INDEX tracks_text;
CREATE INDEX tracks_first ON tracks(first_us);
CREATE INDEX tracks_device_area ON tracks USING gist (device_id, area);
)sql";

constexpr const char* kWordsExpression = "jsonb_to_tsvector('simple', attributes, '[\"string\"]')";
constexpr const char* kWordsColumn = "words";

constexpr const char* kColumns =
    "track_id, device_id, type_id, engine_id, first_us, last_us, area, best_shot_us, best_kind, "
    "best_shot, best_stream, attributes";

constexpr const char* kMerge =
    "INSERT INTO tracks SELECT * FROM tracks_stage ON CONFLICT (track_id) DO UPDATE SET "
    "device_id = EXCLUDED.device_id, type_id = EXCLUDED.type_id, engine_id = EXCLUDED.engine_id, "
    "first_us = EXCLUDED.first_us, last_us = EXCLUDED.last_us, area = EXCLUDED.area, "
    "best_shot_us = EXCLUDED.best_shot_us, best_kind = EXCLUDED.best_kind, "
    "best_shot = EXCLUDED.best_shot, best_stream = EXCLUDED.best_stream, "
    "attributes = EXCLUDED.attributes";

std::string number(double value)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.17g", value);
    return text;
}

/** The box literal of the rectangle: opposite corners. */
std::string boxText(const Rect& r)
{
    std::string text = "(";
    text.append(number(r.x + r.width)).append(",").append(number(r.y + r.height));
    text.append("),(").append(number(r.x)).append(",").append(number(r.y)).append(")");
    return text;
}

Rect united(const Rect& a, const Rect& b)
{
    const double left = std::min(a.x, b.x), top = std::min(a.y, b.y);
    const double right = std::max(a.x + a.width, b.x + b.width);
    const double bottom = std::max(a.y + a.height, b.y + b.height);
    return Rect{left, top, right - left, bottom - top};
}

std::string attributesJson(const std::vector<common::metadata::Attribute>& attributes)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartArray();
    for (const auto& a : attributes) {
        writer.StartObject();
        writer.Key("name");
        writer.String(a.name.data(), static_cast<rapidjson::SizeType>(a.name.size()));
        writer.Key("value");
        writer.String(a.value.data(), static_cast<rapidjson::SizeType>(a.value.size()));
        writer.EndObject();
    }
    writer.EndArray();
    return std::string(buffer.GetString(), buffer.GetSize());
}

std::string uuidText(const ZuUuid& id)
{
    return id.toSimpleStdString();
}

struct BatchPositions
{
    std::string timestamps;
    std::string durations;
    std::string boxes;
};

void appendArrayItem(std::string* array, const std::string& item)
{
    if (!array->empty())
        array->push_back(',');
    array->append(item);
}

/** CPU seconds of a process from /proc, 0 when it is gone. */
double processCpuSeconds(int pid, int* parent = nullptr)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(in, text);
    const auto close = text.rfind(')');
    if (close == std::string::npos)
        return 0;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    double utime = 0, stime = 0;
    // After the name: state is field 3, the parent field 4, utime and stime fields 14 and 15.
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 4 && parent)
            *parent = std::stoi(field);
        if (i == 14)
            utime = std::stod(field);
        if (i == 15)
            stime = std::stod(field);
    }
    return (utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace

PostgresStore::PostgresStore(const std::string& connection)
{
    m_connection = PQconnectdb(connection.c_str());
    if (PQstatus(m_connection) != CONNECTION_OK) {
        m_error = PQerrorMessage(m_connection);
        PQfinish(m_connection);
        m_connection = nullptr;
        return;
    }
    // Quiet: DROP IF EXISTS notices are not news.
    if (!exec("SET client_min_messages = warning") || !exec(kSchema)) {
        PQfinish(m_connection);
        m_connection = nullptr;
        return;
    }
    PGresult* result =
        PQexec(m_connection,
               "SELECT current_setting('server_version') || ', shared_buffers ' || "
               "current_setting('shared_buffers') || ', synchronous_commit ' || "
               "current_setting('synchronous_commit') || ', fsync ' || current_setting('fsync') || "
               "', wal_level ' || current_setting('wal_level')");
    if (PQresultStatus(result) == PGRES_TUPLES_OK && PQntuples(result) == 1)
        m_settings = PQgetvalue(result, 0, 0);
    PQclear(result);
}

PostgresStore::~PostgresStore()
{
    if (m_connection)
        PQfinish(m_connection);
}

std::string PostgresStore::description() const
{
    return "PostgreSQL " + m_settings +
           ": a row per track, B-tree (device, first), type, track id; GIN tsvector of the "
           "attributes; GiST box; positions as arrays per track and batch; COPY + INSERT ON "
           "CONFLICT" +
           (m_tuned ? "; tuned: B-tree (first), GiST (device, box) through btree_gist, the "
                      "words in a stored column with its GIN index in place of the expression's"
                    : "");
}

bool PostgresStore::tune()
{
    if (m_tuned)
        return true;
    // The rewritten table is vacuumed as after the load: otherwise the first search to read a
    // row marks it as committed and writes its page back (4,000 pages for one search of a box
    // on 5M tracks, 290 ms).
    if (!exec(kTuning) || !exec("VACUUM ANALYZE tracks"))
        return false;
    // Plans made before the indexes existed are dropped with their statements.
    m_prepared.clear();
    m_tuned = exec("DEALLOCATE ALL");
    return m_tuned;
}

bool PostgresStore::fail(const std::string& what)
{
    m_error = what + ": " + PQerrorMessage(m_connection);
    return false;
}

bool PostgresStore::exec(const std::string& sql)
{
    PGresult* result = PQexec(m_connection, sql.c_str());
    const auto status = PQresultStatus(result);
    PQclear(result);
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK)
        return fail(sql.substr(0, 60));
    return true;
}

bool PostgresStore::copy(const std::string& table, const std::string& rows)
{
    PGresult* result = PQexec(m_connection, ("COPY " + table + " FROM STDIN").c_str());
    const bool started = PQresultStatus(result) == PGRES_COPY_IN;
    PQclear(result);
    if (!started)
        return fail("COPY " + table);
    if (PQputCopyData(m_connection, rows.data(), static_cast<int>(rows.size())) != 1 ||
        PQputCopyEnd(m_connection, nullptr) != 1) {
        return fail("COPY data of " + table);
    }
    bool ok = true;
    while (PGresult* end = PQgetResult(m_connection)) {
        ok = ok && PQresultStatus(end) == PGRES_COMMAND_OK;
        PQclear(end);
    }
    return ok ? true : fail("COPY end of " + table);
}

std::string PostgresStore::copyEscaped(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
            case '\\':
                out += "\\\\";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            default:
                out += c;
        }
    }
    return out;
}

bool PostgresStore::load(const std::vector<PacketPtr>& packets)
{
    // Batches as large as our storage's, each in one transaction.
    constexpr std::size_t kBatchPackets = 4096;
    for (std::size_t begin = 0; begin < packets.size(); begin += kBatchPackets) {
        if (!loadBatch(packets, begin, std::min(packets.size(), begin + kBatchPackets)))
            return false;
    }
    return true;
}

bool PostgresStore::loadBatch(const std::vector<PacketPtr>& packets, std::size_t begin,
                              std::size_t end)
{
    std::unordered_map<ZuUuid, BatchPositions, analytics::db::UuidHash> changed;
    for (std::size_t i = begin; i < end; ++i) {
        const auto& packet = *packets[i];
        for (const auto& object : packet.objectMetadataList) {
            if (object.trackId.isNull())
                continue;
            auto [known, isNew] = m_tracks.try_emplace(object.trackId);
            known->second.track.add(packet, object);
            known->second.area =
                isNew ? object.boundingBox : united(known->second.area, object.boundingBox);
            BatchPositions& positions = changed[object.trackId];
            if (object.isBestShot())
                continue;
            appendArrayItem(&positions.timestamps, std::to_string(packet.timestampUs));
            appendArrayItem(&positions.durations, std::to_string(packet.durationUs));
            const Rect& box = object.boundingBox;
            for (const double v : {box.x, box.y, box.width, box.height})
                appendArrayItem(&positions.boxes, number(v));
        }
    }

    std::string trackRows, positionRows;
    for (const auto& [id, positions] : changed) {
        const Known& known = m_tracks[id];
        const TrackAggregate& t = known.track;
        m_maxSpanUs = std::max(m_maxSpanUs, t.lastUs - t.firstUs);
        trackRows += uuidText(t.id) + '\t' + uuidText(t.deviceId) + '\t' + copyEscaped(t.typeId) +
                     '\t' + uuidText(t.engineId) + '\t' + std::to_string(t.firstUs) + '\t' +
                     std::to_string(t.lastUs) + '\t' + boxText(known.area) + '\t' +
                     std::to_string(t.bestShotKind ? t.bestShot.timestampUs : 0) + '\t' +
                     std::to_string(t.bestShotKind) + '\t' +
                     (t.bestShotKind ? boxText(t.bestShot.rect) : "\\N") + '\t' +
                     std::to_string(static_cast<int>(t.bestShot.streamIndex)) + '\t' +
                     copyEscaped(attributesJson(t.attributes)) + '\n';
        if (!positions.timestamps.empty()) {
            positionRows += uuidText(id) + "\t{" + positions.timestamps + "}\t{" +
                            positions.durations + "}\t{" + positions.boxes + "}\n";
        }
    }
    if (!exec("BEGIN") || !copy("tracks_stage", trackRows) || !exec(kMerge) ||
        (!positionRows.empty() && !copy("track_positions", positionRows)) || !exec("COMMIT")) {
        exec("ROLLBACK");
        return false;
    }
    forgetEndedTracks(packets[end - 1]->timestampUs);
    return true;
}

void PostgresStore::forgetEndedTracks(std::int64_t nowUs)
{
    // A live writer forgets the tracks that have ended, or 100M objects would be held in
    // memory; an hour without an object is far beyond any pause of a camera.
    constexpr std::int64_t kEndedAfterUs = 3'600'000'000;
    if (nowUs - m_forgottenUpToUs < kEndedAfterUs / 4)
        return;
    m_forgottenUpToUs = nowUs;
    for (auto it = m_tracks.begin(); it != m_tracks.end();) {
        if (it->second.track.lastUs < nowUs - kEndedAfterUs)
            it = m_tracks.erase(it);
        else
            ++it;
    }
}

bool PostgresStore::finishLoading()
{
    // What an operator runs after a bulk load, so that the planner knows the data.
    return exec("VACUUM ANALYZE tracks") && exec("VACUUM ANALYZE track_positions");
}

PostgresStore::Query PostgresStore::queryOf(const Filter& filter, std::int64_t maxSpanUs,
                                            bool tuned)
{
    Query q;
    const auto parameter = [&q](std::string value) {
        q.parameters.push_back(std::move(value));
        return std::string("$").append(std::to_string(q.parameters.size()));
    };
    const std::int64_t startUs = msToUs(filter.timePeriod.startTimeMs);
    const std::int64_t endUs =
        filter.timePeriod.isInfinite() ? kMaxTime : msToUs(filter.timePeriod.endTimeMs());
    std::int64_t lowFirstUs = kMinTime;
    if (__builtin_sub_overflow(startUs, maxSpanUs, &lowFirstUs))
        lowFirstUs = kMinTime;
    // The same time rule as ours: the track's [first, last] meets [start, end); tracks last at
    // most the longest span stored, which bounds the index range from below.
    std::string where = "first_us < " + parameter(std::to_string(endUs)) +
                        "::bigint AND first_us >= " + parameter(std::to_string(lowFirstUs)) +
                        "::bigint AND last_us >= " + parameter(std::to_string(startUs)) +
                        "::bigint";
    if (filter.deviceIds.size() == 1) {
        where += " AND device_id = " + parameter(uuidText(*filter.deviceIds.begin())) + "::uuid";
    } else if (!filter.deviceIds.empty()) {
        std::string list;
        for (const auto& id : filter.deviceIds)
            appendArrayItem(&list, uuidText(id));
        where += " AND device_id = ANY(" + parameter("{" + list + "}") + "::uuid[])";
    }
    if (!filter.objectTypeId.empty()) {
        std::string list;
        for (const auto& type : filter.objectTypeId)
            appendArrayItem(&list, "\"" + type + "\"");
        where += " AND type_id = ANY(" + parameter("{" + list + "}") + "::text[])";
    }
    if (!filter.objectTrackId.isNull())
        where += " AND track_id = " + parameter(uuidText(filter.objectTrackId)) + "::uuid";
    if (!filter.analyticsEngineId.isNull())
        where += " AND engine_id = " + parameter(uuidText(filter.analyticsEngineId)) + "::uuid";
    if (filter.boundingBox)
        where += " AND area && " + parameter(boxText(*filter.boundingBox)) + "::box";
    if (filter.withBestShotOnly)
        where += " AND best_kind != 0";
    const auto words = analytics::db::TextMatcher::words(filter.freeText);
    if (!words.empty()) {
        std::string query;
        for (const auto& word : words)
            query += (query.empty() ? "" : " & ") + word + ":*";
        where += std::string(" AND ") + (tuned ? kWordsColumn : kWordsExpression) +
                 " @@ to_tsquery('simple', " + parameter(query) + ")";
    }
    const char* order = filter.sortOrder == SortOrder::asc ? "ASC" : "DESC";
    q.sql = std::string("SELECT ") + kColumns + " FROM tracks WHERE " + where +
            " ORDER BY first_us " + order;
    if (filter.maxObjectTracksToSelect > 0)
        q.sql += " LIMIT " + parameter(std::to_string(filter.maxObjectTracksToSelect)) + "::bigint";
    return q;
}

const std::string* PostgresStore::prepared(const std::string& sql)
{
    // Prepared once per shape of query, as a careful client would.
    auto [it, inserted] = m_prepared.try_emplace(sql);
    if (inserted) {
        it->second = std::to_string(m_prepared.size());
        it->second.insert(0, "q");
        PGresult* result = PQprepare(m_connection, it->second.c_str(), sql.c_str(), 0, nullptr);
        const bool ok = PQresultStatus(result) == PGRES_COMMAND_OK;
        PQclear(result);
        if (!ok) {
            fail("prepare " + sql);
            m_prepared.erase(it);
            return nullptr;
        }
    }
    return &it->second;
}

std::vector<std::string> PostgresStore::explain(const Filter& filter)
{
    // The prepared statement's own plan (generic or custom, as the server picks it after its
    // first runs), not a plan made for literal values.
    const Query q = queryOf(filter, m_maxSpanUs, m_tuned);
    std::vector<const char*> values;
    for (const auto& p : q.parameters)
        values.push_back(p.c_str());
    PGresult* result = nullptr;
    if (m_tuned && !filter.freeText.empty()) {
        result = PQexecParams(m_connection, ("EXPLAIN (ANALYZE, BUFFERS) " + q.sql).c_str(),
                              static_cast<int>(values.size()), nullptr, values.data(), nullptr,
                              nullptr, 0);
    } else {
        const std::string* statement = prepared(q.sql);
        if (!statement)
            return {"cannot prepare: " + m_error};
        std::string sql = "EXPLAIN (ANALYZE, BUFFERS) EXECUTE " + *statement + "(";
        for (std::size_t i = 0; i < q.parameters.size(); ++i) {
            char* literal = PQescapeLiteral(m_connection, values[i], q.parameters[i].size());
            sql.append(i ? ", " : "").append(literal ? literal : "NULL");
            PQfreemem(literal);
        }
        sql += ")";
        result = PQexec(m_connection, sql.c_str());
    }
    std::vector<std::string> lines;
    if (PQresultStatus(result) != PGRES_TUPLES_OK)
        lines.push_back(std::string("cannot explain: ") + PQerrorMessage(m_connection));
    for (int row = 0; row < PQntuples(result); ++row)
        lines.emplace_back(PQgetvalue(result, row, 0));
    PQclear(result);
    return lines;
}

bool PostgresStore::search(const Filter& filter, std::size_t* tracks)
{
    *tracks = 0;
    if (filter.timePeriod.durationMs < 0 && !filter.timePeriod.isInfinite())
        return true;
    const Query q = queryOf(filter, m_maxSpanUs, m_tuned);
    std::vector<const char*> values;
    for (const auto& p : q.parameters)
        values.push_back(p.c_str());
    PGresult* result = nullptr;
    if (m_tuned && !filter.freeText.empty()) {
        // A word's matches range from one track to most of them, and the best plan with them:
        // walk the time index for a common word, the text index for a rare one. A prepared
        // statement settles on one generic plan after its first runs; an unnamed statement is
        // planned for its own words.
        result = PQexecParams(m_connection, q.sql.c_str(), static_cast<int>(values.size()), nullptr,
                              values.data(), nullptr, nullptr, 0);
    } else {
        const std::string* statement = prepared(q.sql);
        if (!statement)
            return false;
        result = PQexecPrepared(m_connection, statement->c_str(), static_cast<int>(values.size()),
                                values.data(), nullptr, nullptr, 0);
    }
    if (PQresultStatus(result) != PGRES_TUPLES_OK) {
        PQclear(result);
        return fail("search");
    }
    const int rows = PQntuples(result);
    std::vector<std::string> ids;
    for (int row = 0; row < rows; ++row) {
        for (int column = 0; column < PQnfields(result); ++column)
            PQgetvalue(result, row, column);
        ids.emplace_back(PQgetvalue(result, row, 0));
    }
    PQclear(result);
    *tracks = static_cast<std::size_t>(rows);

    if (filter.needFullTrack) {
        for (const auto& id : ids) {
            const char* value = id.c_str();
            PGresult* positions = PQexecParams(
                m_connection,
                "SELECT timestamps, durations, boxes FROM track_positions WHERE track_id = $1", 1,
                nullptr, &value, nullptr, nullptr, 0);
            const bool ok = PQresultStatus(positions) == PGRES_TUPLES_OK;
            PQclear(positions);
            if (!ok)
                return fail("positions");
        }
    }
    return true;
}

std::uint64_t PostgresStore::bytesOnDisk()
{
    PGresult* result = PQexec(m_connection,
                              "SELECT pg_total_relation_size('tracks') + "
                              "pg_total_relation_size('track_positions')");
    std::uint64_t bytes = 0;
    if (PQresultStatus(result) == PGRES_TUPLES_OK && PQntuples(result) == 1)
        bytes = std::stoull(PQgetvalue(result, 0, 0));
    PQclear(result);
    return bytes;
}

double PostgresStore::serverCpuSeconds()
{
    // The backend serving this connection and the server's own processes (WAL writer,
    // checkpointer, background writer): the children of the postmaster.
    int postmaster = 0;
    processCpuSeconds(PQbackendPID(m_connection), &postmaster);
    if (postmaster <= 1)
        return 0;
    double seconds = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        int parent = 0;
        const double cpu = processCpuSeconds(std::stoi(name), &parent);
        if (parent == postmaster)
            seconds += cpu;
    }
    return seconds;
}

}  // namespace kest::bench
