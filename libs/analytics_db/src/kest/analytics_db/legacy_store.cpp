#include "legacy_store.h"

#include "byte_reader.h"
#include "uuid_bytes.h"

namespace kest::analytics::db {

using common::metadata::Attribute;
using sql::DBResult;

namespace {

/** The fixed-width forms of the old records: little-endian numbers, 32-bit lengths. */
class OldReader
{
public:
    explicit OldReader(std::string_view bytes) : m_in(bytes) {}

    template <typename T>
    bool get(T* value)
    {
        return m_in.getFixed(value);
    }
    bool getString(std::string* text)
    {
        std::uint32_t size = 0;
        if (!get(&size) || m_in.rest().size() < size)
            return false;
        text->assign(m_in.rest().substr(0, size));
        return m_in.skip(size);
    }
    bool getUuid(ZuUuid* id)
    {
        if (m_in.rest().size() < 16)
            return false;
        *id = decodeUuid(m_in.rest().substr(0, 16));
        return m_in.skip(16);
    }
    bool getAttributes(std::vector<Attribute>* out)
    {
        std::uint32_t count = 0;
        if (!get(&count))
            return false;
        for (std::uint32_t i = 0; i < count; ++i) {
            Attribute a;
            if (!getString(&a.name) || !getString(&a.value))
                return false;
            out->push_back(std::move(a));
        }
        return true;
    }
    bool getVarint(std::int64_t* out) { return m_in.getSigned(out); }
    bool atEnd() const { return m_in.atEnd(); }

private:
    ByteReader m_in;
};

}  // namespace

std::vector<Attribute> LegacyStore::decodeAttributes(std::string_view bytes)
{
    std::vector<Attribute> out;
    OldReader(bytes).getAttributes(&out);
    return out;
}

void LegacyStore::decodePositions(std::string_view bytes, std::vector<ObjectPosition>* out)
{
    constexpr std::uint8_t kDeviceFollows = 1;
    constexpr std::uint8_t kAttributesFollow = 2;
    OldReader r(bytes);
    ObjectPosition previous;
    while (!r.atEnd()) {
        ObjectPosition p;
        std::uint8_t flags = 0;
        std::int64_t delta = 0;
        if (!r.get(&flags) || !r.getVarint(&delta))
            return;
        p.timestampUs = static_cast<std::int64_t>(static_cast<std::uint64_t>(previous.timestampUs) +
                                                  static_cast<std::uint64_t>(delta));
        if (!r.getVarint(&p.durationUs) || !r.get(&p.boundingBox.x) || !r.get(&p.boundingBox.y) ||
            !r.get(&p.boundingBox.width) || !r.get(&p.boundingBox.height)) {
            return;
        }
        if (flags & kDeviceFollows) {
            if (!r.getUuid(&p.deviceId))
                return;
        } else {
            p.deviceId = previous.deviceId;
        }
        if (flags & kAttributesFollow) {
            if (!r.getAttributes(&p.attributes))
                return;
        } else {
            p.attributes = previous.attributes;
        }
        previous = p;
        out->push_back(std::move(p));
    }
}

void LegacyStore::decodePositionsV1(std::string_view bytes, std::vector<ObjectPosition>* out)
{
    OldReader r(bytes);
    while (!r.atEnd()) {
        ObjectPosition p;
        if (!r.getUuid(&p.deviceId) || !r.get(&p.timestampUs) || !r.get(&p.durationUs) ||
            !r.get(&p.boundingBox.x) || !r.get(&p.boundingBox.y) || !r.get(&p.boundingBox.width) ||
            !r.get(&p.boundingBox.height) || !r.getAttributes(&p.attributes)) {
            return;
        }
        out->push_back(std::move(p));
    }
}

std::int64_t LegacyStore::meta(const char* key, std::int64_t otherwise)
{
    auto s = m_db.prepare("SELECT value FROM meta WHERE key = ?");
    if (!s)
        return otherwise;
    s->bindText(1, key);
    return s->step() ? s->int64(0) : otherwise;
}

DBResult LegacyStore::forEachTrack(const std::function<DBResult(Track&)>& visit)
{
    auto tracks = m_db.prepare(
        "SELECT t.id, t.guid, d.guid, ty.name, t.engine, t.origin_us, t.first_us, t.last_us, "
        "t.grid, t.best_us, t.best_kind, t.best_x, t.best_y, t.best_w, t.best_h, t.best_stream, "
        "t.attributes FROM track t JOIN device d ON d.id = t.device "
        "JOIN object_type ty ON ty.id = t.type ORDER BY t.id");
    auto positions = m_db.prepare("SELECT track, data FROM track_position ORDER BY track, rowid");
    if (!tracks || !positions)
        return m_db.lastResult();
    bool positionRow = positions->step();
    while (tracks->step()) {
        Track row;
        row.rowId = tracks->int64(0);
        TrackAggregate& t = row.track;
        t.id = decodeUuid(tracks->blob(1));
        t.deviceId = decodeUuid(tracks->blob(2));
        t.typeId = std::string(tracks->text(3));
        t.engineId = decodeUuid(tracks->blob(4));
        t.originUs = tracks->int64(5);
        t.firstUs = tracks->int64(6);
        t.lastUs = tracks->int64(7);
        t.grid = BoundingBoxGrid::fromBytes(tracks->blob(8));
        t.bestShotKind = static_cast<int>(tracks->int64(10));
        if (t.bestShotKind != 0) {
            t.bestShot.timestampUs = tracks->int64(9);
            t.bestShot.rect = {tracks->real(11), tracks->real(12), tracks->real(13),
                               tracks->real(14)};
            t.bestShot.streamIndex = static_cast<common::metadata::StreamIndex>(tracks->int64(15));
        }
        t.attributes = decodeAttributes(tracks->blob(16));
        // Chunks of tracks that are gone are skipped; both lists are in track order.
        while (positionRow && positions->int64(0) < row.rowId)
            positionRow = positions->step();
        while (positionRow && positions->int64(0) == row.rowId) {
            if (m_version == 1)
                decodePositionsV1(positions->blob(1), &row.positions);
            else
                decodePositions(positions->blob(1), &row.positions);
            positionRow = positions->step();
        }
        if (positions->result() != DBResult::ok)
            return positions->result();
        if (auto r = visit(row); r != DBResult::ok)
            return r;
    }
    return tracks->result();
}

}  // namespace kest::analytics::db
