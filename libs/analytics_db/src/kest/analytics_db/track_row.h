#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include <kest/sql/statement.h>

#include "attribute_coder.h"
#include "store_dictionary.h"
#include "track_aggregate.h"

namespace kest::analytics::db {

/** A track as its row keeps it: the aggregate, where its positions are, and when it was written. */
struct StoredTrack
{
    std::int64_t rowId = 0;
    TrackAggregate track;
    /** Its chunks of positions in the `position` table, oldest first; mostly one. */
    std::vector<std::int64_t> chunks;
    /** The commit that wrote the row last. */
    std::int64_t sealed = 0;
};

/**
 * The columns of a track row as searches and the writer select them, and how they are read and
 * written. The id is kept as two integers: its second half, and its first half mixed with the
 * second, which is indexed (ids that share a half, as made-up or time-based ones do, still
 * spread over the index, and nothing is stored twice); device, type and
 * engine are dictionary keys, the last appearance is kept as the span from the first, the grid
 * in its compact form, and what no search filters on (origin, best shot, chunks, commit) in one
 * blob.
 */
class TrackRow
{
public:
    static constexpr const char* kColumns =
        "t.id, t.id_key, t.id_lo, t.device, t.type, t.engine, t.first_us, t.span_us, t.best, "
        "t.grid, t.attributes, t.detail";
    static constexpr int kColumnCount = 12;
    /** Where the row id and the first appearance are among kColumns. */
    static constexpr int kRowIdColumn = 0;
    static constexpr int kFirstUsColumn = 6;
    /** INSERT, and INSERT OR REPLACE, with every column, bound by bind(). */
    static constexpr const char* kInsert =
        "INSERT INTO track(id, id_key, id_lo, device, type, engine, first_us, span_us, best, grid, "
        "attributes, detail) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12)";
    static constexpr const char* kReplace =
        "INSERT OR REPLACE INTO track(id, id_key, id_lo, device, type, engine, first_us, span_us, "
        "best, grid, attributes, detail) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12)";

    /**
     * Reads the kColumns that start at `column`. False when the row names a dictionary key that
     * `dictionary` does not hold yet (reload it and read again) or is malformed.
     */
    static bool read(const sql::Statement& row, int column, const StoreDictionary& dictionary,
                     StoredTrack* out);
    /** The blobs of a row being written, kept while the statement reads them in place. */
    struct Encoded
    {
        std::string grid;
        std::string attributes;
        std::string detail;
    };
    /** Binds ?1 to ?12 of kInsert; dictionary keys that are missing are added. */
    static void bind(sql::Statement& statement, const StoredTrack& stored, AttributeCoder& coder,
                     StoreDictionary& dictionary, Encoded* encoded);

    /** The attribute set in its stored form. */
    static std::string encodeAttributes(const std::vector<common::metadata::Attribute>& attributes,
                                        AttributeCoder& coder);
    static bool decodeAttributes(std::string_view bytes, const StoreDictionary& dictionary,
                                 std::vector<common::metadata::Attribute>* out);

    /** The two integers of an id: its indexed key, and its second half. */
    static std::pair<std::int64_t, std::int64_t> idHalves(const ZuUuid& id);
    static ZuUuid idOf(std::int64_t key, std::int64_t low);

private:
    static std::int64_t mixed(std::int64_t value);
};

/** Chunks per track at most: a track that would need more keeps adding to its last one. */
constexpr std::size_t kMaxPositionChunks = 1024;

/** The words free-text search finds: every attribute name and value, one attribute a line. */
std::string attributesSearchText(const std::vector<common::metadata::Attribute>& attributes);

}  // namespace kest::analytics::db
