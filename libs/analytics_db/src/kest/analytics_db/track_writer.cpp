#include "track_writer.h"

#include <kest/sql/transaction.h>
#include <kest/utils/log/log.h>

#include "record_codec.h"
#include "storage_schema.h"
#include "track_row.h"

namespace kest::analytics::db {

using sql::DBResult;

TrackWriter::TrackWriter(std::size_t cacheCapacity) : m_cacheCapacity(cacheCapacity) {}

DBResult TrackWriter::open(const std::string& file, const sql::ConnectionOptions& options)
{
    if (auto r = m_db.open(file, options); r != DBResult::ok)
        return r;
    if (auto r = applySchema(m_db); r != DBResult::ok)
        return r;
    auto meta = m_db.prepare("SELECT key, value FROM meta");
    if (!meta)
        return m_db.lastResult();
    while (meta->step()) {
        const std::string_view key = meta->text(0);
        if (key == "maxSpanUs")
            m_maxSpanUs = meta->int64(1);
        else if (key == kMaxFirstKey)
            m_maxFirstUs = meta->int64(1);
        else if (key == kMaxLagKey)
            m_maxLagUs = meta->int64(1);
    }
    return meta->result();
}

DBResult TrackWriter::storeMeta(const char* key, std::int64_t value)
{
    auto* s = m_db.cached("INSERT OR REPLACE INTO meta(key, value) VALUES(?, ?)");
    if (!s)
        return m_db.lastResult();
    s->bindText(1, key);
    s->bind(2, value);
    return s->exec();
}

DBResult TrackWriter::write(const std::vector<PacketPtr>& packets)
{
    // Reads of tracks not in the cache happen inside the write transaction too: outside it,
    // each would take and drop the WAL read lock on its own.
    sql::Transaction transaction(m_db);
    DBResult result = transaction.beginResult();
    std::unordered_map<ZuUuid, Pending, UuidHash> pending;
    pending.reserve(packets.size() * 2);
    for (const auto& packet : packets) {
        for (const auto& object : packet->objectMetadataList) {
            if (result != DBResult::ok)
                break;
            if (object.trackId.isNull())
                continue;
            auto [it, inserted] = pending.try_emplace(object.trackId);
            Pending& p = it->second;
            if (inserted) {
                if (auto c = m_cache.find(object.trackId); c != m_cache.end()) {
                    p.track = c->second.track;
                    p.rowId = c->second.rowId;
                    p.stored = p.track;
                    m_lru.splice(m_lru.begin(), m_lru, c->second.lru);
                } else {
                    result = loadTrack(object.trackId, &p);
                }
            }
            p.attributesChanged |= p.track.add(*packet, object);
            if (!object.isBestShot()) {
                p.positions.append(packet->deviceId, packet->timestampUs, packet->durationUs,
                                   object.boundingBox, object.attributes);
            }
        }
    }

    // Rows of a batch get their ids in no particular order, so the lag of each track whose
    // first appearance is new is taken against the latest first appearance after the batch.
    std::int64_t maxSpan = m_maxSpanUs;
    std::int64_t maxFirst = m_maxFirstUs;
    std::int64_t maxLag = m_maxLagUs;
    for (const auto& [id, p] : pending) {
        if (p.rowId == 0 || p.stored.firstUs != p.track.firstUs)
            maxFirst = std::max(maxFirst, p.track.firstUs);
    }
    for (auto it = pending.begin(); result == DBResult::ok && it != pending.end(); ++it) {
        Pending& p = it->second;
        if (p.rowId == 0 || p.stored.firstUs != p.track.firstUs)
            maxLag = std::max(maxLag, lagOf(maxFirst, p.track.firstUs));
        result = storeTrack(p);
        maxSpan = std::max(maxSpan, p.track.lastUs - p.track.firstUs);
    }
    if (result == DBResult::ok && maxSpan > m_maxSpanUs)
        result = storeMeta("maxSpanUs", maxSpan);
    if (result == DBResult::ok && maxFirst != m_maxFirstUs)
        result = storeMeta(kMaxFirstKey, maxFirst);
    if (result == DBResult::ok && maxLag != m_maxLagUs)
        result = storeMeta(kMaxLagKey, maxLag);
    m_db.resetCached();
    if (result == DBResult::ok)
        result = transaction.commit();
    if (result != DBResult::ok) {
        transaction.rollback();
        // Dictionary rows of this batch are rolled back too; the cache never saw the batch.
        m_devices.clear();
        m_types.clear();
        return result;
    }
    m_maxSpanUs = maxSpan;
    m_maxFirstUs = maxFirst;
    m_maxLagUs = maxLag;
    for (auto& [id, p] : pending)
        remember(std::move(p));
    return DBResult::ok;
}

DBResult TrackWriter::loadTrack(const ZuUuid& id, Pending* pending)
{
    static const std::string kSql =
        std::string("SELECT ") + kTrackColumns + " FROM " + kTrackTables + " WHERE t.guid = ?";
    auto* s = m_db.cached(kSql);
    if (!s)
        return m_db.lastResult();
    s->bindBlob(1, encodeUuid(id));
    if (s->step()) {
        pending->track = readTrackRow(*s, &pending->rowId);
        pending->stored = pending->track;
    }
    return s->result();
}

DBResult TrackWriter::storeTrack(Pending& p)
{
    const TrackAggregate& t = p.track;
    std::int64_t device = 0;
    std::int64_t type = 0;
    if (auto r = deviceKey(t.deviceId, &device); r != DBResult::ok)
        return r;
    if (auto r = typeKey(t.typeId, &type); r != DBResult::ok)
        return r;

    // Most updates only move the last appearance: the indexed columns (device, type, first_us,
    // best_kind) are then left out, so that SQLite does not rewrite their index entries.
    const bool isNew = p.rowId == 0;
    const bool indexedChanged = isNew || p.stored.firstUs != t.firstUs ||
                                p.stored.deviceId != t.deviceId || p.stored.typeId != t.typeId ||
                                p.stored.bestShotKind != t.bestShotKind;
    auto* s = m_db.cached(
        isNew
            ? "INSERT INTO track(device, type, engine, origin_us, first_us, last_us, grid, "
              "best_us, best_kind, best_x, best_y, best_w, best_h, best_stream, attributes, guid) "
              "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16)"
        : indexedChanged
            ? "UPDATE track SET device = ?1, type = ?2, engine = ?3, origin_us = ?4, "
              "first_us = ?5, last_us = ?6, grid = ?7, best_us = ?8, best_kind = ?9, "
              "best_x = ?10, best_y = ?11, best_w = ?12, best_h = ?13, best_stream = ?14, "
              "attributes = ?15 WHERE id = ?16"
            : "UPDATE track SET engine = ?3, origin_us = ?4, last_us = ?6, "
              "grid = ?7, best_us = ?8, best_x = ?10, best_y = ?11, best_w = ?12, best_h = ?13, "
              "best_stream = ?14, attributes = ?15 WHERE id = ?16");
    if (!s)
        return m_db.lastResult();
    s->bind(1, device);
    s->bind(2, type);
    s->bindBlob(3, encodeUuid(t.engineId));
    s->bind(4, t.originUs);
    s->bind(5, t.firstUs);
    s->bind(6, t.lastUs);
    s->bindBlob(7, t.grid.toBytes());
    s->bind(8, t.bestShotKind ? t.bestShot.timestampUs : std::int64_t{0});
    s->bind(9, t.bestShotKind);
    s->bind(10, t.bestShot.rect.x);
    s->bind(11, t.bestShot.rect.y);
    s->bind(12, t.bestShot.rect.width);
    s->bind(13, t.bestShot.rect.height);
    s->bind(14, static_cast<int>(t.bestShot.streamIndex));
    s->bindBlob(15, encodeAttributes(t.attributes));
    if (isNew)
        s->bindBlob(16, encodeUuid(t.id));
    else
        s->bind(16, p.rowId);
    if (auto r = s->exec(); r != DBResult::ok)
        return r;
    if (isNew)
        p.rowId = m_db.lastInsertRowId();

    if (isNew || p.attributesChanged) {
        if (!isNew) {
            auto* del = m_db.cached("DELETE FROM track_text WHERE rowid = ?");
            if (!del)
                return m_db.lastResult();
            del->bind(1, p.rowId);
            if (auto r = del->exec(); r != DBResult::ok)
                return r;
        }
        auto* text = m_db.cached("INSERT INTO track_text(rowid, text) VALUES(?, ?)");
        if (!text)
            return m_db.lastResult();
        text->bind(1, p.rowId);
        text->bindText(2, attributesSearchText(t.attributes));
        if (auto r = text->exec(); r != DBResult::ok)
            return r;
    }

    if (!p.positions.empty()) {
        auto* pos = m_db.cached("INSERT INTO track_position(track, data) VALUES(?, ?)");
        if (!pos)
            return m_db.lastResult();
        pos->bind(1, p.rowId);
        pos->bindBlob(2, p.positions.bytes());
        if (auto r = pos->exec(); r != DBResult::ok)
            return r;
    }
    return DBResult::ok;
}

DBResult TrackWriter::deviceKey(const ZuUuid& id, std::int64_t* key)
{
    if (auto it = m_devices.find(id); it != m_devices.end()) {
        *key = it->second;
        return DBResult::ok;
    }
    const std::string bytes = encodeUuid(id);
    auto* find = m_db.cached("SELECT id FROM device WHERE guid = ?");
    if (!find)
        return m_db.lastResult();
    find->bindBlob(1, bytes);
    if (find->step()) {
        *key = find->int64(0);
    } else {
        if (find->result() != DBResult::ok)
            return find->result();
        auto* insert = m_db.cached("INSERT INTO device(guid) VALUES(?)");
        if (!insert)
            return m_db.lastResult();
        insert->bindBlob(1, bytes);
        if (auto r = insert->exec(); r != DBResult::ok)
            return r;
        *key = m_db.lastInsertRowId();
    }
    m_devices.emplace(id, *key);
    return DBResult::ok;
}

DBResult TrackWriter::typeKey(const std::string& name, std::int64_t* key)
{
    if (auto it = m_types.find(name); it != m_types.end()) {
        *key = it->second;
        return DBResult::ok;
    }
    auto* find = m_db.cached("SELECT id FROM object_type WHERE name = ?");
    if (!find)
        return m_db.lastResult();
    find->bindText(1, name);
    if (find->step()) {
        *key = find->int64(0);
    } else {
        if (find->result() != DBResult::ok)
            return find->result();
        auto* insert = m_db.cached("INSERT INTO object_type(name) VALUES(?)");
        if (!insert)
            return m_db.lastResult();
        insert->bindText(1, name);
        if (auto r = insert->exec(); r != DBResult::ok)
            return r;
        *key = m_db.lastInsertRowId();
    }
    m_types.emplace(name, *key);
    return DBResult::ok;
}

void TrackWriter::remember(Pending&& p)
{
    const ZuUuid id = p.track.id;
    if (auto it = m_cache.find(id); it != m_cache.end()) {
        it->second.track = std::move(p.track);
        it->second.rowId = p.rowId;
        m_lru.splice(m_lru.begin(), m_lru, it->second.lru);
        return;
    }
    m_lru.push_front(id);
    m_cache.emplace(id, Cached{std::move(p.track), p.rowId, m_lru.begin()});
    while (m_cache.size() > m_cacheCapacity) {
        m_cache.erase(m_lru.back());
        m_lru.pop_back();
    }
}

void TrackWriter::forget(const ZuUuid& id)
{
    if (auto it = m_cache.find(id); it != m_cache.end()) {
        m_lru.erase(it->second.lru);
        m_cache.erase(it);
    }
}

DBResult TrackWriter::deleteExpired(std::int64_t cutoffUs, int maxRows, int* deleted)
{
    *deleted = 0;
    sql::Transaction transaction(m_db);
    if (transaction.beginResult() != DBResult::ok)
        return transaction.beginResult();

    std::vector<std::pair<std::int64_t, ZuUuid>> rows;
    {
        // The first_us index bounds the scan; tracks still alive past the cutoff are few.
        auto* s =
            m_db.cached("SELECT id, guid FROM track WHERE first_us < ?1 AND last_us < ?1 LIMIT ?2");
        if (!s)
            return m_db.lastResult();
        s->bind(1, cutoffUs);
        s->bind(2, maxRows);
        while (s->step())
            rows.emplace_back(s->int64(0), decodeUuid(s->blob(1)));
        if (s->result() != DBResult::ok)
            return s->result();
    }
    for (const char* sql :
         {"DELETE FROM track WHERE id = ?", "DELETE FROM track_text WHERE rowid = ?",
          "DELETE FROM track_position WHERE track = ?"}) {
        auto* s = m_db.cached(sql);
        if (!s)
            return m_db.lastResult();
        for (const auto& [rowId, id] : rows) {
            s->reset();
            s->bind(1, rowId);
            if (auto r = s->exec(); r != DBResult::ok)
                return r;
        }
    }
    if (auto r = transaction.commit(); r != DBResult::ok)
        return r;
    for (const auto& [rowId, id] : rows)
        forget(id);
    *deleted = static_cast<int>(rows.size());
    return DBResult::ok;
}

}  // namespace kest::analytics::db
