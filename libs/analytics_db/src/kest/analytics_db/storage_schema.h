#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <kest/sql/connection_options.h>
#include <kest/sql/database.h>

namespace kest::analytics::db {

/**
 * The tables of the events database, versioned through PRAGMA user_version (README, "Storage
 * layout", has what each takes):
 * - `track`: one row per track (TrackRow), its id the number the writer gave the track when it
 *   first saw it; indexed by the first half of the track's id, by (device, first appearance)
 *   with the row id and the grid (a camera's region is tested on the index), by first
 *   appearance and by (type, first appearance);
 * - `track_text`: contentless FTS5 without positions over the attribute names and values, its
 *   rowid the track's: the words only, the text being the track row's attributes; with lists of
 *   the two- and three-character prefixes, without the count of each row's words;
 * - `position`: a track's positions (ObjectRun), one chunk per id positionChunkId(track, part),
 *   mostly one per track;
 * - `journal`: the objects of tracks still open, one row per commit (TrackWriter);
 * - `dictionary`: StoreDictionary's entries;
 * - `meta`: numbers the storage keeps across restarts (see TrackWriter and the keys below).
 * Versions 1 to 4 kept a row per track rewritten with every batch, its positions in chunks per
 * batch and its text twice; they are upgraded on open, all or nothing. Version 5 lacked the
 * prefix lists, versions 5 and 6 the grids in the device index, and versions 5 to 7 counted each
 * row's words in the full-text index: those indexes are made again on open.
 */
constexpr int kSchemaVersion = 8;

/** The latest first appearance ever stored. */
constexpr const char* kMaxFirstKey = "maxFirstUs";
/**
 * How far a track's first appearance ever fell behind the latest first appearance among the
 * tracks numbered before it (row ids follow the order in which tracks were first seen). It
 * bounds how much row id order can differ from first-appearance order.
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

/**
 * Creates the tables, or upgrades a store of an older version: a new file is written beside
 * `file` and takes its place once complete, so that an interrupted upgrade leaves the old store
 * as it was; `db` is then open on the new one. Refuses a store of a newer version.
 */
sql::DBResult applySchema(sql::Database& db, const std::string& file,
                          const sql::ConnectionOptions& options);

/** A table of the current layout, and how its rows are read back and inserted again as they are. */
struct StoredTable
{
    std::string name;
    std::string select;
    std::string insert;
};

/** Every table, the dictionary first; the full-text table's rows are the words of its tracks. */
std::vector<StoredTable> storedTables();

/** Gives `db` the SQL functions that storedTables() reads with ("search_text"). */
sql::DBResult addStoreFunctions(sql::Database& db);

}  // namespace kest::analytics::db
