#include "track_row.h"

#include "record_codec.h"

namespace kest::analytics::db {

TrackAggregate readTrackRow(const sql::Statement& row, std::int64_t* rowId)
{
    TrackAggregate t;
    *rowId = row.int64(0);
    t.id = decodeUuid(row.blob(1));
    t.deviceId = decodeUuid(row.blob(2));
    t.typeId = std::string(row.text(3));
    t.engineId = decodeUuid(row.blob(4));
    t.originUs = row.int64(5);
    t.firstUs = row.int64(6);
    t.lastUs = row.int64(7);
    t.grid = BoundingBoxGrid::fromBytes(row.blob(8));
    t.bestShot.timestampUs = row.int64(9);
    t.bestShotKind = static_cast<int>(row.int64(10));
    t.bestShot.rect = {row.real(11), row.real(12), row.real(13), row.real(14)};
    t.bestShot.streamIndex = static_cast<common::metadata::StreamIndex>(row.int64(15));
    t.attributes = decodeAttributes(row.blob(16));
    return t;
}

}  // namespace kest::analytics::db
