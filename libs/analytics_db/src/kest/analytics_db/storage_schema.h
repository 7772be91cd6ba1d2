#pragma once

#include <cstdint>
#include <limits>

#include <kest/sql/database.h>

namespace kest::analytics::db {

/**
 * The tables of the events database, versioned through PRAGMA user_version:
 * - `device` and `object_type`: dictionaries, so that tracks carry small integer keys;
 * - `track`: one row per track (its id as a 16-byte blob, times in microseconds, the grid as
 *   32 bytes, attributes in the binary form of record_codec.h), indexed by (device, first_us),
 *   (type, first_us), first_us, the last two again for tracks with a best shot, and the id;
 * - `track_text`: FTS5 over the attribute names and values, its rowid the track row's id;
 * - `track_position`: the position sequence, one chunk per track and written batch
 *   (PositionChunk of record_codec.h; version 1 kept every field of every position);
 * - `meta`: numbers the storage keeps across restarts ("maxSpanUs", kMaxFirstKey, kMaxLagKey).
 */
constexpr int kSchemaVersion = 4;

/** The latest first appearance ever stored. */
constexpr const char* kMaxFirstKey = "maxFirstUs";
/**
 * How far a track's first appearance ever fell behind the latest first appearance among the
 * tracks stored before it (row ids follow storing). It bounds how much row id order can differ
 * from first-appearance order; first appearances only move earlier, so it stays a bound.
 */
constexpr const char* kMaxLagKey = "maxLagUs";
constexpr std::int64_t kNoFirstUs = std::numeric_limits<std::int64_t>::min();

/** `latest - first`, never negative, saturating. */
inline std::int64_t lagOf(std::int64_t latest, std::int64_t first)
{
    std::int64_t out = 0;
    if (latest <= first)
        return 0;
    return __builtin_sub_overflow(latest, first, &out) ? std::numeric_limits<std::int64_t>::max()
                                                       : out;
}

/** Creates the tables or upgrades older ones; refuses a database of a newer version. */
sql::DBResult applySchema(sql::Database& db);

}  // namespace kest::analytics::db
