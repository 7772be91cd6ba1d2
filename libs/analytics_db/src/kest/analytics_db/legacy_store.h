#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include <kest/sql/database.h>

#include "object_track_ex.h"
#include "track_aggregate.h"

namespace kest::analytics::db {

/**
 * Reads a store of schema versions 1 to 4, for its upgrade: a row per track with 16-byte ids,
 * doubles for the best shot, the 32-byte grid and the attributes as fixed-width lengths and
 * bytes; positions in chunks per track and batch (four doubles a box; version 1 with every field
 * of every position).
 */
class LegacyStore
{
public:
    struct Track
    {
        std::int64_t rowId = 0;
        TrackAggregate track;
        std::vector<ObjectPosition> positions;
    };

    LegacyStore(sql::Database& db, int version) : m_db(db), m_version(version) {}

    /** Every track with its positions, in row id order; stops at the first failure of `visit`. */
    sql::DBResult forEachTrack(const std::function<sql::DBResult(Track&)>& visit);
    /** The value of a meta key, or `otherwise`. */
    std::int64_t meta(const char* key, std::int64_t otherwise);

    static std::vector<common::metadata::Attribute> decodeAttributes(std::string_view bytes);
    static void decodePositions(std::string_view bytes, std::vector<ObjectPosition>* out);
    static void decodePositionsV1(std::string_view bytes, std::vector<ObjectPosition>* out);

private:
    sql::Database& m_db;
    int m_version;
};

}  // namespace kest::analytics::db
