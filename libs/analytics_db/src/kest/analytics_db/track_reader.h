#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <kest/sql/database.h>

#include "filter.h"
#include "object_track_ex.h"
#include "open_tracks_snapshots.h"
#include "result_code.h"
#include "store_dictionary.h"
#include "text_matcher.h"
#include "track_row.h"

struct sqlite3_context;
struct sqlite3_value;

namespace kest::analytics::db {

/**
 * Runs searches on its own read-only connection (WAL lets it read while the writer commits),
 * over the stored tracks and, as of the same commit, the tracks the writer still has open
 * (OpenTracksSnapshots): an open track that has a row as well is taken from the writer.
 *
 * How a `Filter` is applied:
 * - time: a track covers [first, last] appearance, both ends included; the filter period
 *   [start, start + duration) includes its start and excludes its end; they match when they
 *   share an instant. An infinite duration has no end; any other negative one selects nothing.
 * - boundingBox: matches when a cell of the track's grid (see BoundingBoxGrid) is also a cell
 *   of the box, so the test is as coarse as the grid.
 * - freeText: split into words at every character that is not a letter or digit; each word
 *   matches an attribute name or value word starting with it (prefix match, case and
 *   diacritics ignored); all words must match, in any attributes of the track. Text without
 *   any word selects everything.
 * - sortOrder: by first appearance ("desc": latest first), ties by order of storing.
 * - maxObjectTracksToSelect: 0 or negative means no limit.
 * - devices, types, engine, track id, withBestShotOnly: exact matches; empty sets and null ids
 *   select everything.
 * Indexes: the track id is a key; each device is an index range on (device, first appearance),
 * merged; without devices, each type is a range on (type, first appearance); otherwise the
 * first-appearance index. Ranges are bounded below by the longest track stored. Engine, box and
 * common words are tested on the rows of the range until the limit is reached. Words that are
 * not common enough for that go through FTS5: when a bounded read of one word's matches shows
 * it rare (or of all words together), those matches are all there is: their rows are read by
 * key and tested against the other words. Otherwise, without devices the matches are walked in
 * row id order: row ids follow storing, which strays from first-appearance order by at most the lag
 * the storage records (kMaxLagKey), so the walk stops once no row further on can beat the answer
 * found. With devices, or when the lag is too wide for the walk to end soon, the index range is
 * tested against the set of all FTS5 matches.
 */
class TrackReader
{
public:
    /**
     * Where the time of the searches went, summed while set (benchmarks): each part is timed
     * apart, and the statements are what is left of the whole.
     */
    struct Profile
    {
        std::chrono::nanoseconds total{};
        /** Open tracks tested and merged. */
        std::chrono::nanoseconds openTracks{};
        /** Track rows decoded into aggregates. */
        std::chrono::nanoseconds decoding{};
        /** Attribute sets tested row by row against the words. */
        std::chrono::nanoseconds matcher{};
        /** Aggregates turned into answers, positions read and decoded included. */
        std::chrono::nanoseconds answers{};
        std::int64_t rowsDecoded = 0;
        std::int64_t rowsMatched = 0;
        std::int64_t searches = 0;

        std::chrono::nanoseconds statements() const
        {
            return total - openTracks - decoding - matcher - answers;
        }
    };

    /** Without `openTracks` only stored tracks are found. */
    explicit TrackReader(std::shared_ptr<const OpenTracksSnapshots> openTracks = nullptr);

    sql::DBResult open(const std::string& file, const sql::ConnectionOptions& options);

    ResultCode lookup(const Filter& filter, std::vector<ObjectTrackEx>* tracks);

    const std::string& lastError() const { return m_db.lastError(); }
    /** The connection, for other read-only work of the same worker (activity counts). */
    sql::Database& database() { return m_db; }

    /**
     * Words of free text as an FTS5 query, all of them needed: each word a prefix, or without
     * `prefixes` each word as it is.
     */
    static std::string ftsQuery(const std::vector<std::string>& words, bool prefixes = true);

    /**
     * Free text is first checked row by row while walking the time index, which finds common
     * words quickly; after this many rows without a full answer the full-text index is used.
     */
    static constexpr std::int64_t kTextScanBudget = 4000;
    /** Tests use it to take the other ways on small stores; 0 never tests rows one by one. */
    void setTextScanBudget(std::int64_t checks) { m_textScanBudget = checks; }
    /**
     * With devices, the way after the row by row test reads every match of the words from the
     * full-text index (a word of four letters or more merges the lists of all words starting
     * with it) and walks the devices' index ranges: about this many matches, or index entries,
     * cost as much as one row tested (0.3 and 3.6 us on 5M tracks). So the row by row test goes
     * on for as many rows as those would cost, kTextScanBudget at least, and is not begun when
     * it would need more.
     */
    static constexpr double kMatchesPerRow = 12.0;

    /** Rows the row id walk may read before every FTS5 match is checked instead. */
    static constexpr std::int64_t kRowWalkBudget = 20000;

    /**
     * Words that FTS5 matches fewer times than this (a licence plate, a rare make) skip the row by
     * row test, which would read its whole budget to find nothing: their matches are read from
     * the index at once. Counting up to it costs a few microseconds for common words; words of
     * one letter, which have no prefix index, are not counted.
     */
    static constexpr std::int64_t kRareTextMatches = 256;
    /**
     * Of several words, one with at most this many matches gives the candidates that the others
     * are tested on, one by one (see rareCandidates).
     */
    static constexpr std::int64_t kFewTextMatches = 32;
    /**
     * When every word has more, one with at most this many still gives the candidates: testing
     * them costs about a microsecond each, less than FTS5's AND with the long lists.
     */
    static constexpr std::int64_t kCandidateMatches = 1024;
    /** ... and when its first matches lie at least this many times further apart than another's. */
    static constexpr std::int64_t kCandidateSpread = 16;
    /** A device's index entries that walkDevice() takes at a time. */
    static constexpr std::int64_t kDeviceChunk = 256;
    /**
     * ... and the matches of the words' lists over a chunk's row ids, per row of the chunk, past
     * which its rows are tested one by one instead: a streamed list entry costs far less than a
     * row read by key and tested (8 gave a common word within one camera twice the p99 of 16 on
     * 1M tracks of 200 cameras; 32 and 64 gave the same as 16).
     */
    static constexpr std::int64_t kListedPerRow = 16;
    /**
     * ... and the share of the words' prefixes' matches that the words match, below one in this
     * many of which the words' own lists are taken instead.
     */
    static constexpr std::size_t kOwnListPrecision = 8;
    /** ... judged, in the walk along the row ids, once this many rows are tested. */
    static constexpr std::int64_t kOwnListAfterRows = 256;
    /** Words of at most this many characters have their own lists as prefixes (the schema's). */
    static constexpr int kPrefixListChars = 3;
    /** Tests use it to take either way on small stores; 0 never counts. */
    void setRareTextMatches(std::int64_t matches) { m_rareTextMatches = matches; }

    /** Null stops profiling; `profile` must outlive the searches made meanwhile. */
    void setProfile(Profile* profile) { m_profile = profile; }

    struct Query;
    struct Row;

private:
    enum class TextMode
    {
        none,
        scan,
        rowWalk,
        /**
         * The rows of m_rareRows by key: every match of the words, or those of one word, the
         * others then tested by the matcher (m_rareRowsTested).
         */
        rows,
        /** The row id walk over prefixQuery()'s matches, each tested by the matcher. */
        prefixWalk,
        /** The devices' index ranges against prefixQuery()'s lists over the same row ids. */
        deviceWalk,
        index
    };

    sql::DBResult lookupIn(const Filter& filter, std::vector<ObjectTrackEx>* tracks);
    sql::DBResult readState(std::int64_t* seq);
    sql::DBResult run(const Filter& filter, TextMode textMode, std::int64_t extra,
                      std::vector<Row>* rows);
    sql::DBResult select(const Query& query, std::int64_t partition, std::vector<Row>* out);
    sql::DBResult walk(const Query& query, std::vector<Row>* out, bool* gaveUp);
    /** The rows of `device` that match the query, in its order, up to its limit. */
    sql::DBResult walkDevice(Query* query, std::int64_t device, std::vector<Row>* rows);
    /**
     * The rows of m_rareRows that match the query (the other words tested first when
     * m_rareRowsTested), walked in row id order so that a limit can end the walk early.
     */
    sql::DBResult readKnownRows(Query* query, std::span<const std::int64_t> partitions,
                                std::vector<Row>* rows);
    /** The statement that matchesWords() takes: a track row's attributes by its id. */
    sql::Statement* attributesStatement();
    /** Whether the track row `rowId` has the query's words (false when there is none). */
    sql::DBResult matchesWords(sql::Statement& attributes, std::int64_t rowId, bool* matches);
    sql::DBResult rowBounds(Query* query);
    sql::DBResult keysOf(const Filter& filter, TextMode textMode, Query* query,
                         bool* matchesNothing);
    sql::DBResult readRow(const sql::Statement& statement, Row* row);
    static void textHits(sqlite3_context* context, int, sqlite3_value** args);
    bool matchesOpen(const Filter& filter, const OpenTrackView& view) const;
    sql::DBResult loadPositions(const StoredTrack& stored, ObjectTrackEx* track);
    bool decodePositions(std::string_view run, std::int64_t baseUs,
                         std::vector<ObjectPosition>* out, bool positionsOnly);
    /**
     * Whether FTS5 matches one of the words, or all of them together, fewer than
     * m_rareTextMatches times; if so, m_rareRows holds those matches: those of one word to be
     * tested against the others (m_rareRowsTested), or those of all words.
     */
    sql::DBResult isRareText(bool* rare);
    /**
     * Of several words of `chars` characters: the matches of one with at most kFewTextMatches,
     * in m_rareRows, to be tested against the others.
     */
    sql::DBResult rareCandidates(const std::vector<int>& chars, bool* rare);
    /**
     * m_scanBudget for words that are not rare, searched with devices, from about how many
     * matches they have (m_rareRows holds the first that the count read); `skipScan` when the
     * row by row test would cost more than the full-text index.
     */
    sql::DBResult scanBudget(const Filter& filter, bool* skipScan);
    /**
     * The matches of one word of `chars` characters as a prefix, `limit` at most; `common` when
     * there are that many.
     */
    sql::DBResult countWord(const std::string& word, int chars, std::int64_t limit,
                            std::vector<std::int64_t>* matches, bool* common);
    /**
     * The query words cut to their first `maxChars` characters, as an FTS5 query of prefixes:
     * every track that the words match, and a few more. Cut to kPrefixListChars, each prefix has
     * a list of its own. Words of one character are left out (the matcher tests them); empty
     * when every word is that short.
     */
    std::string prefixQuery(int maxChars = kPrefixListChars) const;
    /** The row ids that the FTS5 query `fts` matches, `limit` at most. */
    sql::DBResult textMatches(const std::string& fts, std::int64_t limit,
                              std::vector<std::int64_t>* rows);

    sql::Database m_db;
    std::shared_ptr<const OpenTracksSnapshots> m_openTracks;
    StoreDictionary m_dictionary;
    TextMatcher m_matcher;
    std::int64_t m_maxSpanUs = 0;
    std::int64_t m_maxLagUs = -1;
    /** PRAGMA data_version when the state above was read, and the seq read then; -1: none. */
    std::int64_t m_dataVersion = -1;
    std::int64_t m_seq = 0;
    std::vector<std::string> m_words;
    std::vector<std::int64_t> m_rareRows;
    /** m_rareRows match one word of several: the rows are tested against the others. */
    bool m_rareRowsTested = false;
    bool m_textBudgetApplies = true;
    bool m_textBudgetExceeded = false;
    /** The prefixes' lists are walked, and the words' own lists are other, shorter ones. */
    bool m_ownListsApply = false;
    /** Rows that the matcher found to match, in this run. */
    std::int64_t m_textHits = 0;
    /** The run ended as the prefixes' lists held mostly other words. */
    bool m_listsSparse = false;
    bool m_walkGaveUp = false;
    std::int64_t m_textScanBudget = kTextScanBudget;
    /** Of this search: m_textScanBudget, or more (scanBudget()). */
    std::int64_t m_scanBudget = kTextScanBudget;
    std::int64_t m_rareTextMatches = kRareTextMatches;
    Profile* m_profile = nullptr;
};

}  // namespace kest::analytics::db
