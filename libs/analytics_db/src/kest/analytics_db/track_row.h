#pragma once

#include <cstdint>

#include <kest/sql/statement.h>

#include "track_aggregate.h"

namespace kest::analytics::db {

/** How a track row is selected and read back, shared by the writer and the searches. */
constexpr const char* kTrackColumns =
    "t.id, t.guid, d.guid, ty.name, t.engine, t.origin_us, t.first_us, t.last_us, t.grid, "
    "t.best_us, t.best_kind, t.best_x, t.best_y, t.best_w, t.best_h, t.best_stream, t.attributes";
constexpr const char* kTrackTables =
    "track t JOIN device d ON d.id = t.device JOIN object_type ty ON ty.id = t.type";

/** Reads the columns of kTrackColumns; `rowId` receives the row's id. */
TrackAggregate readTrackRow(const sql::Statement& row, std::int64_t* rowId);

}  // namespace kest::analytics::db
