#include "json_blob_store.h"

#include <limits>
#include <unordered_set>

#include <kest/analytics_db/text_matcher.h>
#include <kest/analytics_db/time_arithmetic.h>
#include <kest/reflect/json.h>
#include <kest/sql/transaction.h>

#include "../analytics_db/store_files.h"

namespace kest::bench {

namespace fs = std::filesystem;
using analytics::db::Filter;
using analytics::db::msToUs;
using analytics::db::SortOrder;
using sql::DBResult;

namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS events(
    id INTEGER PRIMARY KEY,
    device_id TEXT NOT NULL,
    track_id TEXT NOT NULL,
    timestamp_us INTEGER NOT NULL,
    duration_us INTEGER NOT NULL,
    data TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS events_device_time ON events(device_id, timestamp_us);
CREATE INDEX IF NOT EXISTS events_time ON events(timestamp_us);
CREATE INDEX IF NOT EXISTS events_track ON events(track_id, timestamp_us);
)sql";

constexpr std::int64_t kMaxTime = std::numeric_limits<std::int64_t>::max();

}  // namespace

JsonBlobStore::JsonBlobStore(fs::path dir) : m_dir(std::move(dir))
{
    fs::remove_all(m_dir);
    fs::create_directories(m_dir);
    if (m_db.open((m_dir / "events.sqlite").string(), sql::ConnectionOptions()) != DBResult::ok ||
        m_db.exec(kSchema) != DBResult::ok) {
        m_db.close();
    }
}

std::string JsonBlobStore::description() const
{
    return "SQLite WAL, synchronous=NORMAL: a row per object with its JSON, indexes on "
           "(device, time), time and (track, time); json_extract and LIKE";
}

bool JsonBlobStore::load(const std::vector<PacketPtr>& packets)
{
    // One transaction per 4096 packets, as large as the batches of our storage.
    constexpr std::size_t kTransactionPackets = 4096;
    for (std::size_t begin = 0; begin < packets.size(); begin += kTransactionPackets) {
        sql::Transaction transaction(m_db);
        if (transaction.beginResult() != DBResult::ok)
            return false;
        auto* insert = m_db.cached(
            "INSERT INTO events(device_id, track_id, timestamp_us, duration_us, data) "
            "VALUES(?, ?, ?, ?, ?)");
        if (!insert)
            return false;
        const std::size_t end = std::min(packets.size(), begin + kTransactionPackets);
        for (std::size_t i = begin; i < end; ++i) {
            const auto& packet = *packets[i];
            const std::string device = packet.deviceId.toStdString();
            for (const auto& object : packet.objectMetadataList) {
                insert->reset();
                insert->bindText(1, device);
                insert->bindText(2, object.trackId.toStdString());
                insert->bind(3, packet.timestampUs);
                insert->bind(4, packet.durationUs);
                insert->bindText(5, reflect::json::serialize(object));
                if (insert->exec() != DBResult::ok)
                    return false;
            }
        }
        m_db.resetCached();
        if (transaction.commit() != DBResult::ok)
            return false;
    }
    return true;
}

std::string JsonBlobStore::whereClause(const Filter& filter)
{
    // Parameters: ?1 start, ?2 end, ?3 device, ?4 track id, ?5.. box, then the words.
    std::string where = "timestamp_us >= ?1 AND timestamp_us < ?2";
    if (!filter.deviceIds.empty())
        where += " AND device_id = ?3";
    if (!filter.objectTrackId.isNull())
        where += " AND track_id = ?4";
    if (filter.boundingBox) {
        where +=
            " AND json_extract(data, '$.boundingBox.x') < ?6"
            " AND json_extract(data, '$.boundingBox.x') + json_extract(data, "
            "'$.boundingBox.width') > ?5"
            " AND json_extract(data, '$.boundingBox.y') < ?8"
            " AND json_extract(data, '$.boundingBox.y') + json_extract(data, "
            "'$.boundingBox.height') > ?7";
    }
    const auto words = analytics::db::TextMatcher::words(filter.freeText);
    for (std::size_t i = 0; i < words.size(); ++i) {
        where += " AND json_extract(data, '$.attributes') LIKE ?" + std::to_string(10 + i);
    }
    where += std::string(" ORDER BY timestamp_us ") +
             (filter.sortOrder == SortOrder::asc ? "ASC" : "DESC");
    return where;
}

bool JsonBlobStore::search(const Filter& filter, std::size_t* tracks)
{
    *tracks = 0;
    if (filter.timePeriod.durationMs < 0 && !filter.timePeriod.isInfinite())
        return true;
    // The events come newest (or oldest) first; the first `limit` distinct tracks are the answer,
    // so the walk stops there instead of grouping every matching event.
    auto* s = m_db.cached("SELECT track_id, timestamp_us, duration_us, data FROM events WHERE " +
                          whereClause(filter));
    if (!s)
        return false;
    s->bind(1, msToUs(filter.timePeriod.startTimeMs));
    s->bind(2, filter.timePeriod.isInfinite() ? kMaxTime : msToUs(filter.timePeriod.endTimeMs()));
    if (!filter.deviceIds.empty())
        s->bindText(3, filter.deviceIds.begin()->toStdString());
    if (!filter.objectTrackId.isNull())
        s->bindText(4, filter.objectTrackId.toStdString());
    if (const auto& box = filter.boundingBox) {
        s->bind(5, box->x);
        s->bind(6, box->x + box->width);
        s->bind(7, box->y);
        s->bind(8, box->y + box->height);
    }
    const auto words = analytics::db::TextMatcher::words(filter.freeText);
    for (std::size_t i = 0; i < words.size(); ++i)
        s->bindText(static_cast<int>(10 + i), "%" + words[i] + "%");

    const std::size_t limit = filter.maxObjectTracksToSelect > 0
                                  ? static_cast<std::size_t>(filter.maxObjectTracksToSelect)
                                  : std::numeric_limits<std::size_t>::max();
    std::unordered_set<std::string> found;
    while (found.size() < limit && s->step()) {
        found.emplace(s->text(0));
        s->text(3);  //< Read, as a caller would.
    }
    const bool ok = s->result() == DBResult::ok;
    m_db.resetCached();
    *tracks = found.size();
    return ok;
}

std::uint64_t JsonBlobStore::bytesOnDisk()
{
    m_db.close();
    checkpointSqliteFiles(m_dir);
    const auto bytes = directoryBytes(m_dir);
    m_db.open((m_dir / "events.sqlite").string(), sql::ConnectionOptions());
    return bytes;
}

}  // namespace kest::bench
