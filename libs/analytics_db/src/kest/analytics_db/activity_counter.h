#pragma once

#include <string>

#include <kest/sql/database.h>

#include "activity.h"
#include "activity_query.h"
#include "result_code.h"

namespace kest::analytics::db {

class ActivityHistogram;

/**
 * Counts the tracks that a filter selects into buckets of time, per type, and into the heatmap,
 * from what the track rows and the indexes hold (type, first and last appearance, grid, words),
 * never from positions. The filter is applied as a search applies it (see track_reader.h): the
 * same indexes for devices, types and time, words through the full-text index, the box on the
 * grid. Runs on a search connection, in one read transaction.
 */
class ActivityCounter
{
public:
    /** `db` is a search connection (TrackReader's): read-only, with the grid test function. */
    explicit ActivityCounter(sql::Database& db);

    /** `query` must be valid (ActivityQuery::isValid()). */
    ResultCode count(const ActivityQuery& query, Activity* activity);

    const std::string& lastError() const { return m_db.lastError(); }

private:
    sql::DBResult run(const ActivityQuery& query, ActivityHistogram* histogram);

    sql::Database& m_db;
};

}  // namespace kest::analytics::db
