#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <kest/sql/database.h>

#include "activity.h"
#include "activity_index.h"
#include "activity_query.h"
#include "open_tracks_snapshots.h"
#include "result_code.h"
#include "store_dictionary.h"
#include "text_matcher.h"

namespace kest::analytics::db {

class ActivityHistogram;

/**
 * Counts the tracks that a filter selects into buckets of time, per type, and into the heatmap,
 * from what the track rows, the indexes and the writer's open tracks hold (type, first and last
 * appearance, grid, words), never from positions. It counts what a search with the same filter
 * finds (see track_reader.h): stored tracks and, as of the same commit, open ones, an open track
 * replacing the older row the store may hold of it.
 *
 * Stored tracks are selected by the ActivityIndex (devices, types, time, best shot; words through
 * the full-text index) when it is of the state that the read transaction sees, their grids then
 * read from their rows for a box or the heatmap; otherwise, and for an engine or a track id, they
 * come from the track table, its indexes narrowing the rows as a search's do. One instance per
 * search connection, used by one thread at a time.
 */
class ActivityCounter
{
public:
    /**
     * `db` is a search connection (TrackReader's): read-only, with the grid test function.
     * Without `openTracks` only stored tracks are counted, without `index` always from the table.
     */
    ActivityCounter(sql::Database& db, std::shared_ptr<const OpenTracksSnapshots> openTracks,
                    std::shared_ptr<const ActivityIndex> index);

    /** `query` must be valid (ActivityQuery::isValid()). */
    ResultCode count(const ActivityQuery& query, Activity* activity);

    const std::string& lastError() const;

    /** How the last count read the stored tracks. */
    enum class Source
    {
        none,
        index,
        table
    };
    Source lastSource() const { return m_lastSource; }

    /**
     * When the tracks whose grids are needed are at least one in this many of the stored ones,
     * the grids are read in one pass over the table rather than row by row.
     */
    static constexpr std::size_t kGridScanShare = 8;

private:
    struct Keys;
    struct State;
    /** A stored track that the index selected, for a count that needs its grid. */
    struct Match
    {
        std::int64_t rowId = 0;
        std::int64_t slot = 0;
        std::int64_t firstMs = 0;
        std::int64_t lastMs = 0;
    };

    sql::DBResult countOnce(const ActivityQuery& query, bool lastAttempt,
                            ActivityHistogram* histogram, bool* retry);
    sql::DBResult readState(State* state);
    bool keysOf(const ActivityQuery& query, Keys* keys) const;
    void countOpen(const ActivityQuery& query, const OpenTracks& open,
                   ActivityHistogram* histogram);
    /** Releases `index` once it has what it needs of it. */
    sql::DBResult countIndexed(const ActivityQuery& query, const Keys& keys,
                               std::optional<ActivityIndex::Reader>* index,
                               const std::vector<std::int64_t>& replaced,
                               ActivityHistogram* histogram);
    sql::DBResult countGrids(const ActivityQuery& query, std::vector<Match>* matches,
                             std::size_t storedTracks, ActivityHistogram* histogram);
    sql::DBResult countTable(const ActivityQuery& query, const Keys& keys, std::int64_t maxSpanUs,
                             const std::vector<std::int64_t>& replaced,
                             ActivityHistogram* histogram);

    sql::Database& m_db;
    std::shared_ptr<const OpenTracksSnapshots> m_openTracks;
    std::shared_ptr<const ActivityIndex> m_index;
    StoreDictionary m_dictionary;
    TextMatcher m_matcher;
    bool m_matcherOpen = false;
    std::vector<std::string> m_words;
    std::string m_error;
    Source m_lastSource = Source::none;
};

}  // namespace kest::analytics::db
