#include "track_reader.h"

#include <sqlite3.h>

#include <QString>
#include <algorithm>
#include <limits>
#include <span>
#include <tuple>
#include <unordered_set>

#include <kest/analytics_db/time_arithmetic.h>
#include <kest/utils/log/log.h>

#include "attribute_coder.h"
#include "bounding_box_grid.h"
#include "object_run.h"
#include "storage_schema.h"
#include "track_aggregate.h"
#include "track_row.h"
#include "uuid_bytes.h"

namespace kest::analytics::db {

using sql::DBResult;

namespace {

constexpr std::int64_t kMaxTime = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMinTime = std::numeric_limits<std::int64_t>::min();

/** Rows that a search makes room for at once, when its limit is no more. */
constexpr std::int64_t kReservedRows = 1000;

/** Parameter numbers of the type list, then of the device list of the row id walk. */
constexpr int kFirstTypeParam = 100;

std::string_view bytesOf(sqlite3_value* v)
{
    const auto* data = static_cast<const char*>(sqlite3_value_blob(v));
    return data ? std::string_view(data, sqlite3_value_bytes(v)) : std::string_view();
}

/**
 * grid_hits(stored grid, 32-byte mask): whether they share a cell. The mask is a parameter of
 * the statement: it is read once per run and kept as SQLite's auxiliary data.
 */
void gridHits(sqlite3_context* context, int, sqlite3_value** args)
{
    const std::string_view stored = bytesOf(args[0]);
    if (const auto* mask = static_cast<const BoundingBoxGrid*>(sqlite3_get_auxdata(context, 1))) {
        sqlite3_result_int(context, mask->intersectsCompact(stored));
        return;
    }
    auto* mask = new BoundingBoxGrid(BoundingBoxGrid::fromBytes(bytesOf(args[1])));
    sqlite3_result_int(context, mask->intersectsCompact(stored));
    // Deletes it at once when it cannot be kept.
    sqlite3_set_auxdata(context, 1, mask, [](void* p) { delete static_cast<BoundingBoxGrid*>(p); });
}

/** Adds the time of its scope to a part of the profile, when there is one. */
class ProfileTimer
{
public:
    using Part = std::chrono::nanoseconds TrackReader::Profile::*;

    ProfileTimer(TrackReader::Profile* profile, Part part)
        : m_part(profile ? &(profile->*part) : nullptr)
    {
        if (m_part)
            m_start = std::chrono::steady_clock::now();
    }
    ~ProfileTimer()
    {
        if (m_part)
            *m_part += std::chrono::steady_clock::now() - m_start;
    }
    ProfileTimer(const ProfileTimer&) = delete;
    ProfileTimer& operator=(const ProfileTimer&) = delete;

private:
    std::chrono::nanoseconds* m_part;
    std::chrono::steady_clock::time_point m_start;
};

constexpr const char* kStateKeys =
    "SELECT key, value FROM meta WHERE key IN "
    "('seq', 'dictionary', 'maxSpanUs', 'maxLagUs')";

}  // namespace

struct TrackReader::Query
{
    std::string sql;
    std::vector<std::int64_t> devices;
    /** Values of ?4, one index range each: the devices, else the types, else one unused. */
    std::vector<std::int64_t> partitions;
    std::vector<std::int64_t> types;
    std::int64_t trackIdHigh = 0;
    std::int64_t trackIdLow = 0;
    bool byTrackId = false;
    std::int64_t engine = 0;
    bool byEngine = false;
    std::string gridMask;
    std::string fts;
    std::int64_t startUs = 0;
    std::int64_t endUs = kMaxTime;
    std::int64_t lowFirstUs = kMinTime;
    std::int64_t limit = -1;
    bool ascending = false;
    /** Of the row id walk: the row ids between these, both excluded, can match. */
    std::int64_t lowRowId = kMinTime;
    std::int64_t highRowId = kMaxTime;
    /** kMaxLagKey of the storage; negative when a store does not know it. */
    std::int64_t maxLagUs = -1;
    bool walking = false;
    /** Of a search of the rows of known matches: the row of this statement. */
    bool byRowId = false;
    std::int64_t rowId = 0;

    int firstDeviceParam() const { return kFirstTypeParam + static_cast<int>(types.size()); }
};

/** A track found, stored or open, with what orders it. */
struct TrackReader::Row
{
    StoredTrack stored;
    /** The open track it is, or null for a stored one. */
    const OpenTrackView* open = nullptr;

    auto key() const { return std::pair(stored.track.firstUs, stored.rowId); }
};

TrackReader::TrackReader(std::shared_ptr<const OpenTracksSnapshots> openTracks)
    : m_openTracks(std::move(openTracks))
{}

DBResult TrackReader::open(const std::string& file, const sql::ConnectionOptions& options)
{
    if (auto r = m_db.open(file, options, /*create*/ false); r != DBResult::ok)
        return r;
    const int rc = sqlite3_create_function_v2(m_db.handle(), "grid_hits", 2,
                                              SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS,
                                              nullptr, &gridHits, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK)
        return m_db.fail(rc, "grid_hits");
    const int rc2 = sqlite3_create_function_v2(m_db.handle(), "text_hits", 1, SQLITE_UTF8, this,
                                               &TrackReader::textHits, nullptr, nullptr, nullptr);
    if (rc2 != SQLITE_OK)
        return m_db.fail(rc2, "text_hits");
    if (!m_matcher.open(m_db.handle()))
        return m_db.fail(SQLITE_ERROR, "fts5 tokenizer");
    return m_db.exec("PRAGMA query_only = 1");
}

std::string TrackReader::prefixQuery(int maxChars) const
{
    std::string query;
    for (const std::string& token : m_matcher.queryTokens()) {
        if (token.find('"') != std::string::npos)
            return {};
        // Up to maxChars characters of UTF-8. A one-letter token ("e" of "e-bike") is left to
        // the matcher, which tests every row the other tokens' lists give: its own list is the
        // merge of every word's that starts with the letter.
        std::size_t end = 0;
        int chars = 0;
        while (end < token.size() && chars < maxChars) {
            ++end;
            while (end < token.size() && (static_cast<unsigned char>(token[end]) & 0xC0) == 0x80)
                ++end;
            ++chars;
        }
        if (chars < 2)
            continue;
        if (!query.empty())
            query += ' ';
        query += '"' + token.substr(0, end) + "\"*";
    }
    return query;
}

std::string TrackReader::ftsQuery(const std::vector<std::string>& words, bool prefixes)
{
    std::string query;
    for (const std::string& word : words) {
        if (!query.empty())
            query += ' ';
        query += '"' + word + (prefixes ? "\"*" : "\"");
    }
    return query;
}

void TrackReader::textHits(sqlite3_context* context, int, sqlite3_value** args)
{
    auto* self = static_cast<TrackReader*>(sqlite3_user_data(context));
    const ProfileTimer timer(self->m_profile, &Profile::matcher);
    if (self->m_profile)
        ++self->m_profile->rowsMatched;
    const std::int64_t checks = self->m_matcher.checks();
    // A walk of the prefixes' lists in which under one in kOwnListPrecision rows matched has
    // more of the same ahead: the words' own lists cost less (see lookupIn()).
    const bool sparse = self->m_ownListsApply && checks >= kOwnListAfterRows &&
                        self->m_textHits * static_cast<std::int64_t>(kOwnListPrecision) < checks;
    if ((self->m_textBudgetApplies && checks >= self->m_scanBudget) || sparse) {
        self->m_textBudgetExceeded = true;
        self->m_listsSparse = sparse;
        sqlite3_result_error(context, "text scan budget exceeded", -1);
        return;
    }
    const bool hit = self->m_matcher.matches(bytesOf(args[0]), self->m_dictionary);
    self->m_textHits += hit;
    sqlite3_result_int(context, hit);
}

ResultCode TrackReader::lookup(const Filter& filter, std::vector<ObjectTrackEx>* tracks)
{
    tracks->clear();
    const ProfileTimer timer(m_profile, &Profile::total);
    if (m_profile)
        ++m_profile->searches;
    DBResult result = DBResult::ok;
    // A search that fell behind the commits that the writer keeps open tracks of starts over.
    for (int attempt = 0; attempt < 3; ++attempt) {
        result = lookupIn(filter, tracks);
        if (result != DBResult::retryLater)
            break;
    }
    if (result != DBResult::ok) {
        tracks->clear();
        return ResultCode::error;
    }
    return ResultCode::ok;
}

DBResult TrackReader::readState(std::int64_t* seq)
{
    // The same version as at the last search: no commit came in between, and what was read then
    // holds (an idle store's searches read no meta rows).
    auto* version = m_db.cached("PRAGMA data_version");
    if (!version)
        return m_db.lastResult();
    if (!version->step())
        return version->result() == DBResult::ok ? DBResult::logicError : version->result();
    const std::int64_t dataVersion = version->int64(0);
    if (dataVersion == m_dataVersion) {
        *seq = m_seq;
        return DBResult::ok;
    }
    m_dataVersion = -1;
    auto* s = m_db.cached(kStateKeys);
    if (!s)
        return m_db.lastResult();
    std::int64_t dictionary = 0;
    m_maxSpanUs = 0;
    m_maxLagUs = -1;
    while (s->step()) {
        const std::string_view key = s->text(0);
        if (key == "seq")
            *seq = s->int64(1);
        else if (key == "dictionary")
            dictionary = s->int64(1);
        else if (key == "maxSpanUs")
            m_maxSpanUs = s->int64(1);
        else if (key == kMaxLagKey)
            m_maxLagUs = s->int64(1);
    }
    if (s->result() != DBResult::ok)
        return s->result();
    if (static_cast<std::uint64_t>(dictionary) != m_dictionary.entries()) {
        if (auto r = m_dictionary.load(m_db); r != DBResult::ok)
            return r;
    }
    m_dataVersion = dataVersion;
    m_seq = *seq;
    return DBResult::ok;
}

DBResult TrackReader::lookupIn(const Filter& filter, std::vector<ObjectTrackEx>* tracks)
{
    tracks->clear();
    // One read transaction, so that every query below sees the same committed state; both ends
    // prepared once, as parsing them costs more than a small search's statements.
    auto* begin = m_db.cached("BEGIN");
    if (!begin)
        return m_db.lastResult();
    if (auto r = begin->exec(); r != DBResult::ok)
        return r;
    struct End
    {
        sql::Database& db;
        ~End()
        {
            db.resetCached();
            if (auto* commit = db.cached("COMMIT"))
                commit->exec();
        }
    } end{m_db};

    std::int64_t seq = 0;
    if (auto r = readState(&seq); r != DBResult::ok)
        return r;
    std::shared_ptr<const OpenTracks> open;
    if (m_openTracks) {
        open = m_openTracks->get(seq);
        if (!open)
            return DBResult::retryLater;
    }

    m_words = TextMatcher::words(filter.freeText);
    m_matcher.setQuery(m_words);
    m_textBudgetExceeded = false;
    m_walkGaveUp = false;
    m_rareRowsTested = false;
    m_scanBudget = m_textScanBudget;

    if (filter.timePeriod.durationMs < 0 && !filter.timePeriod.isInfinite())
        return DBResult::ok;
    const bool ascending = filter.sortOrder == SortOrder::asc;
    const auto before = [ascending](const Row& a, const Row& b) {
        return ascending ? a.key() < b.key() : b.key() < a.key();
    };

    // Open tracks first: those that the store holds an older row of replace that row.
    std::vector<Row> found;
    std::unordered_set<std::int64_t> replaced;
    if (open) {
        const ProfileTimer timer(m_profile, &Profile::openTracks);
        replaced.insert(open->replacedRows.begin(), open->replacedRows.end());
        const auto consider = [&](std::size_t index) {
            const OpenTrackView& view = *open->tracks[index];
            if (matchesOpen(filter, view))
                found.push_back({view.stored, &view});
        };
        // A track id or devices name the few open tracks that can match.
        if (!filter.objectTrackId.isNull()) {
            if (const auto it = open->byId.find(filter.objectTrackId); it != open->byId.end())
                consider(it->second);
        } else if (!filter.deviceIds.empty()) {
            for (const ZuUuid& device : filter.deviceIds) {
                if (const auto it = open->byDevice.find(device); it != open->byDevice.end()) {
                    for (const std::size_t index : it->second)
                        consider(index);
                }
            }
        } else {
            for (std::size_t index = 0; index < open->tracks.size(); ++index)
                consider(index);
        }
    }

    bool rare = m_words.size() > TextMatcher::kMaxQueryWords;
    bool rareRows = false;
    if (!m_words.empty() && !rare) {
        if (auto r = isRareText(&rare); r != DBResult::ok)
            return r;
        rareRows = rare;
    }
    bool skipScan = false;
    if (!rare && !m_words.empty() && !filter.deviceIds.empty()) {
        if (auto r = scanBudget(filter, &skipScan); r != DBResult::ok)
            return r;
    }
    const auto extra = static_cast<std::int64_t>(replaced.size());
    std::vector<Row> stored;
    // Rare words start where a row by row test that found nothing would have gone next.
    DBResult result = DBResult::ok;
    if (rareRows) {
        // Every match is in hand: their rows are read by key, not found again through FTS5.
        result = run(filter, TextMode::rows, extra, &stored);
    } else if (!rare && !m_words.empty() && filter.deviceIds.empty() &&
               filter.objectTrackId.isNull() && !prefixQuery().empty()) {
        // Common words: their matches walked newest (or oldest) first, from the lists of their
        // first three characters, each row tested against the words as a whole.
        result = run(filter, TextMode::prefixWalk, extra, &stored);
        // A walk that read or tested too many rows before the lag rule settled goes along the
        // time index instead, which stops at the limit. One whose lists held mostly other words
        // (a word that few of the words sharing its first letters are) goes to the words' own
        // lists below: the time index would test every row the lists gave it, and more.
        if (m_walkGaveUp || (result != DBResult::ok && m_textBudgetExceeded && !m_listsSparse)) {
            stored.clear();
            m_db.resetCached();
            m_matcher.setQuery(m_words);
            m_walkGaveUp = false;
            m_textBudgetExceeded = false;
            result = run(filter, TextMode::scan, extra, &stored);
        }
    } else if (!rare && !skipScan) {
        result = run(filter, m_words.empty() ? TextMode::none : TextMode::scan, extra, &stored);
    }
    if ((rare && !rareRows) || skipScan || (result != DBResult::ok && m_textBudgetExceeded)) {
        stored.clear();
        m_db.resetCached();
        if (!rare && !filter.deviceIds.empty() && filter.objectTrackId.isNull() &&
            !prefixQuery().empty()) {
            // Common words of a few devices: the devices' index ranges against the words' lists
            // over the same row ids, which costs what the answer needs, not what the store holds.
            m_matcher.setQuery(m_words);
            m_textBudgetExceeded = false;
            result = run(filter, TextMode::deviceWalk, extra, &stored);
        } else {
            result = run(filter, TextMode::rowWalk, extra, &stored);
            if (result == DBResult::ok && m_walkGaveUp) {
                stored.clear();
                m_db.resetCached();
                result = run(filter, TextMode::index, extra, &stored);
            }
        }
    }
    if (result != DBResult::ok)
        return result;
    found.reserve(found.size() + stored.size());
    for (auto& row : stored) {
        if (!replaced.contains(row.stored.rowId))
            found.push_back(std::move(row));
    }
    // Stored rows come in order: only open tracks put them out of it.
    if (!std::is_sorted(found.begin(), found.end(), before))
        std::sort(found.begin(), found.end(), before);
    if (filter.maxObjectTracksToSelect > 0 &&
        found.size() > static_cast<std::size_t>(filter.maxObjectTracksToSelect)) {
        found.resize(filter.maxObjectTracksToSelect);
    }

    const ProfileTimer answers(m_profile, &Profile::answers);
    tracks->reserve(found.size());
    for (Row& row : found) {
        tracks->push_back(std::move(row.stored.track).toTrack());
        if (row.open)
            tracks->back().attributes = row.open->attributes->attributes;
        if (!filter.needFullTrack)
            continue;
        ObjectTrackEx& track = tracks->back();
        if (auto r = loadPositions(row.stored, &track); r != DBResult::ok)
            return r;
        if (row.open) {
            for (const auto& piece : row.open->pieces) {
                if (!decodePositions(*piece, 0, &track.objectPositionSequence, true))
                    return m_db.fail(SQLITE_CORRUPT, "an open track's objects");
            }
        }
        sortPositions(&track.objectPositionSequence);
    }
    return DBResult::ok;
}

bool TrackReader::matchesOpen(const Filter& filter, const OpenTrackView& view) const
{
    const TrackAggregate& t = view.stored.track;
    if (!filter.deviceIds.empty() && !filter.deviceIds.contains(t.deviceId))
        return false;
    if (!filter.objectTypeId.empty() && !filter.objectTypeId.contains(t.typeId))
        return false;
    if (!filter.objectTrackId.isNull() && filter.objectTrackId != t.id)
        return false;
    if (!filter.analyticsEngineId.isNull() && filter.analyticsEngineId != t.engineId)
        return false;
    if (filter.withBestShotOnly && t.bestShotKind == 0)
        return false;
    const std::int64_t startUs = msToUs(filter.timePeriod.startTimeMs);
    const std::int64_t endUs =
        filter.timePeriod.isInfinite() ? kMaxTime : msToUs(filter.timePeriod.endTimeMs());
    if (!(t.firstUs < endUs && t.lastUs >= startUs))
        return false;
    if (filter.boundingBox && !t.grid.intersects(BoundingBoxGrid::ofRect(*filter.boundingBox)))
        return false;
    return m_matcher.matchesTokens(view.attributes->words);
}

DBResult TrackReader::isRareText(bool* rare)
{
    *rare = false;
    m_rareRowsTested = false;
    m_rareRows.clear();
    if (m_rareTextMatches <= 0)
        return DBResult::ok;
    std::vector<int> chars;
    for (const std::string& word : m_words) {
        chars.push_back(static_cast<int>(QString::fromStdString(word).size()));
        // A one-letter prefix stands for every word starting with it ("t" of "t-shirt"): FTS5
        // would merge all their lists, which costs more than the row by row test it spares.
        if (chars.back() < 2)
            return DBResult::ok;
    }
    if (m_words.size() > 1) {
        if (auto r = rareCandidates(chars, rare); r != DBResult::ok || *rare)
            return r;
    }
    // A prefix that the index has no list of is the merge of the lists of every word starting
    // with it, built whole before the first match comes out: milliseconds for a common word. The
    // words as they are match a subset of what their prefixes match, from lists read as far as
    // needed, so when they alone are common the prefixes are too. Words of two and three
    // characters have lists of their own as prefixes, and need no such test.
    const bool prefixLists =
        std::all_of(chars.begin(), chars.end(), [](int n) { return n <= kPrefixListChars; });
    if (!prefixLists) {
        if (auto r =
                textMatches(ftsQuery(m_words, /*prefixes*/ false), m_rareTextMatches, &m_rareRows);
            r != DBResult::ok ||
            static_cast<std::int64_t>(m_rareRows.size()) >= m_rareTextMatches) {
            return r;
        }
    }
    if (auto r = textMatches(ftsQuery(m_words), m_rareTextMatches, &m_rareRows); r != DBResult::ok)
        return r;
    *rare = static_cast<std::int64_t>(m_rareRows.size()) < m_rareTextMatches;
    return DBResult::ok;
}

DBResult TrackReader::rareCandidates(const std::vector<int>& chars, bool* rare)
{
    // FTS5's AND of a word whose list is long (a plate's letters "bl", a prefix of black and
    // blue) with a rare one seeks the long list in every segment for each rare match, about 3 us
    // a segment: 0.5-1 ms for a plate, where a few rows read by key and tested by the matcher
    // take 3-5 us each. So a word with few matches gives the candidates. Longer words are tried
    // first, as they tend to be the rarer.
    std::vector<std::size_t> order(m_words.size());
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return chars[a] > chars[b]; });
    // Word `i`'s matches, fewer than `limit` of them, are the candidates.
    const auto candidatesOf = [&](std::size_t i, std::int64_t limit) {
        bool common = false;
        const DBResult result = countWord(m_words[i], chars[i], limit, &m_rareRows, &common);
        if (result == DBResult::ok && !common) {
            *rare = true;
            m_rareRowsTested = true;
        }
        return result;
    };
    // How far apart a word's first matches lie (in row ids) tells how rare it is.
    std::vector<std::int64_t> spread(m_words.size());
    for (const std::size_t i : order) {
        if (auto r = candidatesOf(i, kFewTextMatches + 1); r != DBResult::ok || *rare)
            return r;
        spread[i] = m_rareRows.back() - m_rareRows.front();
    }
    // Every word has more. When one list is far longer than another (a plate's letters that
    // begin a name every car has: "nu" of "Number"), the shorter one still gives the candidates
    // if it has a few hundred, walked in order so that a limit ends the walk early. Lists of
    // about the same length are cheaper to join in FTS5, which reads both in order.
    const auto [commonest, rarest] = std::minmax_element(spread.begin(), spread.end());
    if (*commonest * kCandidateSpread > *rarest)
        return DBResult::ok;
    return candidatesOf(static_cast<std::size_t>(rarest - spread.begin()), kCandidateMatches + 1);
}

DBResult TrackReader::scanBudget(const Filter& filter, bool* skipScan)
{
    // The first matches that the count read (in row id order) and how far apart they lie tell
    // about how many there are in all.
    if (m_textScanBudget <= 0 || m_rareRows.size() < 2)
        return DBResult::ok;
    // Row ids are given in storing order and only the oldest are deleted: their span is close to
    // the count of tracks, in two index lookups.
    auto* s = m_db.cached("SELECT (SELECT max(id) FROM track) - (SELECT min(id) FROM track) + 1");
    if (!s)
        return m_db.lastResult();
    const double tracks = s->step() && !s->isNull(0) ? static_cast<double>(s->int64(0)) : 0.0;
    if (s->result() != DBResult::ok)
        return s->result();
    s->reset();
    const double span = static_cast<double>(m_rareRows.back() - m_rareRows.front() + 1);
    const double matches = static_cast<double>(m_rareRows.size()) * tracks / std::max(span, 1.0);
    // The devices' rows, as if all devices had as many.
    const double devices = static_cast<double>(
        std::max<std::size_t>(1, m_dictionary.size(StoreDictionary::Kind::device)));
    const double deviceRows =
        std::min(tracks, tracks * static_cast<double>(filter.deviceIds.size()) / devices);
    // What reading the matches and walking the devices' index ranges costs, in rows tested.
    const double indexRows = (matches + deviceRows) / kMatchesPerRow;
    m_scanBudget = std::max(m_textScanBudget, static_cast<std::int64_t>(indexRows));
    // At any time, the row by row test ends after about as many rows as hold the answer, if the
    // words are spread evenly, else with the devices' rows; when that is past its budget, it is
    // not begun. Within a period the range is shorter, by how much is not known.
    if (filter.timePeriod.startTimeMs <= 0 && filter.timePeriod.isInfinite()) {
        const double answer =
            filter.maxObjectTracksToSelect > 0
                ? std::min(deviceRows, filter.maxObjectTracksToSelect * tracks / matches)
                : deviceRows;
        *skipScan = answer > static_cast<double>(m_scanBudget);
    }
    return DBResult::ok;
}

DBResult TrackReader::countWord(const std::string& word, int chars, std::int64_t limit,
                                std::vector<std::int64_t>* matches, bool* common)
{
    // A word of four characters or more as a prefix has no list of its own (see below): the
    // word as it is decides first whether it is common.
    const std::vector<std::string> words{word};
    *common = false;
    if (chars > kPrefixListChars) {
        if (auto r = textMatches(ftsQuery(words, /*prefixes*/ false), limit, matches);
            r != DBResult::ok) {
            return r;
        }
        if (static_cast<std::int64_t>(matches->size()) >= limit) {
            *common = true;
            return DBResult::ok;
        }
    }
    if (auto r = textMatches(ftsQuery(words), limit, matches); r != DBResult::ok)
        return r;
    *common = static_cast<std::int64_t>(matches->size()) >= limit;
    return DBResult::ok;
}

DBResult TrackReader::textMatches(const std::string& fts, std::int64_t limit,
                                  std::vector<std::int64_t>* rows)
{
    rows->clear();
    auto* s = m_db.cached("SELECT rowid FROM track_text WHERE track_text MATCH ? LIMIT ?");
    if (!s)
        return m_db.lastResult();
    s->bindText(1, fts);
    s->bind(2, limit);
    while (s->step())
        rows->push_back(s->int64(0));
    const DBResult result = s->result();
    s->reset();
    return result;
}

DBResult TrackReader::run(const Filter& filter, TextMode textMode, std::int64_t extra,
                          std::vector<Row>* rows)
{
    Query q;
    bool matchesNothing = false;
    if (auto r = keysOf(filter, textMode, &q, &matchesNothing); r != DBResult::ok)
        return r;
    if (matchesNothing)
        return DBResult::ok;
    // Known matches are few and tested once each: no budget bounds them.
    m_textBudgetApplies = textMode != TextMode::rows;
    m_textHits = 0;
    m_listsSparse = false;
    m_ownListsApply = textMode == TextMode::prefixWalk &&
                      prefixQuery() != prefixQuery(std::numeric_limits<int>::max());
    // Rows that open tracks replace are dropped afterwards: as many more are asked for.
    if (q.limit >= 0)
        q.limit += extra;

    if (textMode == TextMode::rowWalk || textMode == TextMode::prefixWalk) {
        // Without a limit every match is needed anyway; without the lag nothing bounds the walk.
        // Devices have index ranges small enough to test against the set of all matches, while
        // the walk would read matches of every device to find those of a few.
        if (q.limit < 0 || q.maxLagUs < 0 || !q.devices.empty()) {
            m_walkGaveUp = true;
            return DBResult::ok;
        }
        if (auto r = rowBounds(&q); r != DBResult::ok)
            return r;
        return walk(q, rows, &m_walkGaveUp);
    }
    if (q.partitions.empty() && textMode != TextMode::rows)
        return select(q, 0, rows);
    // One index range per device (or type), each already limited, then merged: cost follows
    // the answer, not the number of tracks of the devices. Known matches are read row by row.
    const std::int64_t none = 0;
    const std::span<const std::int64_t> partitions =
        q.partitions.empty() ? std::span(&none, 1) : std::span(q.partitions);
    if (textMode == TextMode::rows) {
        if (auto r = readKnownRows(&q, partitions, rows); r != DBResult::ok)
            return r;
    } else if (textMode == TextMode::deviceWalk) {
        for (const std::int64_t partition : partitions) {
            if (auto r = walkDevice(&q, partition, rows); r != DBResult::ok)
                return r;
        }
    } else {
        for (const std::int64_t partition : partitions) {
            if (auto r = select(q, partition, rows); r != DBResult::ok)
                return r;
        }
    }
    std::sort(rows->begin(), rows->end(), [&](const Row& a, const Row& b) {
        return q.ascending ? a.key() < b.key() : b.key() < a.key();
    });
    if (q.limit >= 0 && rows->size() > static_cast<std::size_t>(q.limit))
        rows->resize(q.limit);
    return DBResult::ok;
}

DBResult TrackReader::keysOf(const Filter& filter, TextMode textMode, Query* q,
                             bool* matchesNothing)
{
    using Kind = StoreDictionary::Kind;
    for (const ZuUuid& device : filter.deviceIds) {
        if (const auto key = m_dictionary.find(Kind::device, UuidBytes(device)))
            q->devices.push_back(*key);
    }
    if (!filter.deviceIds.empty() && q->devices.empty())
        *matchesNothing = true;
    for (const std::string& type : filter.objectTypeId) {
        if (const auto key = m_dictionary.find(Kind::type, type))
            q->types.push_back(*key);
    }
    if (!filter.objectTypeId.empty() && q->types.empty())
        *matchesNothing = true;

    q->maxLagUs = m_maxLagUs;
    q->startUs = msToUs(filter.timePeriod.startTimeMs);
    q->endUs = filter.timePeriod.isInfinite() ? kMaxTime : msToUs(filter.timePeriod.endTimeMs());
    q->lowFirstUs = saturatingSub(q->startUs, m_maxSpanUs);
    q->limit = filter.maxObjectTracksToSelect > 0 ? filter.maxObjectTracksToSelect : -1;
    q->ascending = filter.sortOrder == SortOrder::asc;

    bool textScan = false;
    // A track that starts at or after the period's start also ends after it: its span, which
    // only the table has, is looked at only for tracks that start before. Along the device index,
    // rows that fail the tests on the index's columns are then never read from the table.
    std::string where =
        "t.first_us < ?1 AND t.first_us >= ?2 AND (t.first_us >= ?3 OR t.first_us + t.span_us >= "
        "?3)";
    std::string tables = "track t";
    const bool walking = textMode == TextMode::rowWalk || textMode == TextMode::prefixWalk;
    const bool byType =
        !walking && filter.deviceIds.empty() && !q->types.empty() && filter.objectTrackId.isNull();
    // Without statistics SQLite cannot tell a selective device from a common type, so the
    // index of the partition is named.
    q->walking = walking;
    if (walking) {
        // CROSS JOIN keeps FTS5 outermost, so that rows come in row id order.
        tables = "track_text CROSS JOIN track t";
        where =
            "track_text MATCH ?8 AND track_text.rowid > ?20 AND track_text.rowid < ?21 AND "
            "t.id = track_text.rowid AND " +
            where;
        q->fts = textMode == TextMode::prefixWalk ? prefixQuery() : ftsQuery(m_words);
        textScan = textMode == TextMode::prefixWalk;
        if (!q->devices.empty()) {
            where += " AND t.device IN (";
            for (std::size_t i = 0; i < q->devices.size(); ++i)
                where += (i ? ", ?" : "?") + std::to_string(q->firstDeviceParam() + i);
            where += ")";
        }
    } else if (!filter.deviceIds.empty()) {
        where += " AND t.device = ?4";
        if (filter.objectTrackId.isNull() && textMode != TextMode::rows &&
            textMode != TextMode::deviceWalk) {
            tables = "track t INDEXED BY track_device_first";
        }
        q->partitions = q->devices;
    } else if (byType) {
        where += " AND t.type = ?4";
        if (textMode != TextMode::rows)
            tables = "track t INDEXED BY track_type_first";
        q->partitions = q->types;
    }
    if (textMode == TextMode::rows || textMode == TextMode::deviceWalk) {
        // Rows found otherwise, their words tested before (readKnownRows, walkDevice).
        q->byRowId = true;
        where += " AND t.id = ?11";
    }
    if (!filter.objectTrackId.isNull()) {
        std::tie(q->trackIdHigh, q->trackIdLow) = TrackRow::idHalves(filter.objectTrackId);
        q->byTrackId = true;
        where += " AND t.id_key = ?5 AND t.id_lo = ?10";
    }
    if (!filter.analyticsEngineId.isNull()) {
        const auto key = m_dictionary.find(Kind::engine, UuidBytes(filter.analyticsEngineId));
        if (!key) {
            *matchesNothing = true;
            return DBResult::ok;
        }
        q->engine = *key;
        q->byEngine = true;
        where += " AND t.engine = ?6";
    }
    if (filter.boundingBox) {
        q->gridMask = BoundingBoxGrid::ofRect(*filter.boundingBox).toBytes();
        where += " AND grid_hits(t.grid, ?7)";
    }
    if (textMode == TextMode::index) {
        q->fts = ftsQuery(m_words);
        where += " AND t.id IN (SELECT rowid FROM track_text WHERE track_text MATCH ?8)";
    } else if (textMode == TextMode::scan) {
        // Last, so that it runs only on rows that passed every other test.
        textScan = true;
    }
    if (filter.withBestShotOnly)
        where += " AND t.best != 0";
    if (!q->types.empty() && !byType) {
        where += " AND t.type IN (";
        for (std::size_t i = 0; i < q->types.size(); ++i)
            where += (i ? ", ?" : "?") + std::to_string(kFirstTypeParam + i);
        where += ")";
    }
    if (textScan)
        where += " AND text_hits(t.attributes)";
    const char* order = q->ascending ? "ASC" : "DESC";
    q->sql = std::string("SELECT ") + TrackRow::kColumns + " FROM " + tables + " WHERE " + where +
             (walking ? std::string(" ORDER BY track_text.rowid ") + order
                      : std::string(" ORDER BY t.first_us ") + order + ", t.id " + order) +
             " LIMIT ?9";
    return DBResult::ok;
}

namespace {

void bindQuery(sql::Statement* s, const TrackReader::Query& q, std::int64_t partition,
               std::int64_t limit)
{
    s->bind(1, q.endUs);
    s->bind(2, q.lowFirstUs);
    s->bind(3, q.startUs);
    s->bind(4, partition);
    if (q.byTrackId) {
        s->bind(5, q.trackIdHigh);
        s->bind(10, q.trackIdLow);
    }
    if (q.byEngine)
        s->bind(6, q.engine);
    if (!q.gridMask.empty())
        s->bindBlob(7, q.gridMask);
    if (!q.fts.empty())
        s->bindText(8, q.fts);
    s->bind(9, limit);
    if (q.byRowId)
        s->bind(11, q.rowId);
    for (std::size_t i = 0; i < q.types.size(); ++i)
        s->bind(static_cast<int>(kFirstTypeParam + i), q.types[i]);
    for (std::size_t i = 0; i < q.devices.size() && q.walking; ++i)
        s->bind(static_cast<int>(q.firstDeviceParam() + i), q.devices[i]);
}

}  // namespace

DBResult TrackReader::readRow(const sql::Statement& statement, Row* row)
{
    const ProfileTimer timer(m_profile, &Profile::decoding);
    if (m_profile)
        ++m_profile->rowsDecoded;
    if (TrackRow::read(statement, 0, m_dictionary, &row->stored))
        return DBResult::ok;
    return m_db.fail(SQLITE_CORRUPT, "a track row that cannot be read");
}

DBResult TrackReader::select(const Query& q, std::int64_t partition, std::vector<Row>* out)
{
    auto* s = m_db.cached(q.sql);
    if (!s)
        return m_db.lastResult();
    bindQuery(s, q, partition, q.limit);
    if (q.limit > 0 && q.limit <= kReservedRows)
        out->reserve(out->size() + q.limit);
    while (s->step()) {
        Row row;
        if (auto r = readRow(*s, &row); r != DBResult::ok)
            return r;
        out->push_back(std::move(row));
    }
    return s->result();
}

DBResult TrackReader::readKnownRows(Query* q, std::span<const std::int64_t> partitions,
                                    std::vector<Row>* rows)
{
    // Candidates of one word are tested on their attributes alone (matchesWords()): only the
    // matches are read whole, with the filter's other tests.
    sql::Statement* attributes = m_rareRowsTested ? attributesStatement() : nullptr;
    if (m_rareRowsTested && !attributes)
        return m_db.lastResult();
    const auto before = [q](const Row& a, const Row& b) {
        return q->ascending ? a.key() < b.key() : b.key() < a.key();
    };
    const std::size_t limit = q->limit >= 0 ? static_cast<std::size_t>(q->limit) : SIZE_MAX;
    // Row ids follow the order of storing, as in walk(): walked from the end that the order asks
    // for, rows further on have first appearances within the lag of those found.
    std::int64_t reached = q->ascending ? kMinTime : kMaxTime;
    const std::size_t count = m_rareRows.size();
    for (std::size_t k = 0; k < count; ++k) {
        const std::int64_t rowId = m_rareRows[q->ascending ? k : count - 1 - k];
        if (attributes) {
            bool matches = false;
            if (auto r = matchesWords(*attributes, rowId, &matches); r != DBResult::ok)
                return r;
            if (!matches)
                continue;
        }
        q->rowId = rowId;
        const std::size_t had = rows->size();
        for (const std::int64_t partition : partitions) {
            if (auto r = select(*q, partition, rows); r != DBResult::ok)
                return r;
        }
        if (rows->size() == had)
            continue;
        for (std::size_t i = had; i < rows->size(); ++i) {
            const std::int64_t first = (*rows)[i].stored.track.firstUs;
            reached = q->ascending ? std::max(reached, first) : std::min(reached, first);
        }
        if (rows->size() < limit || q->maxLagUs < 0)
            continue;
        std::nth_element(rows->begin(), rows->begin() + (limit - 1), rows->end(), before);
        const std::int64_t worst = (*rows)[limit - 1].stored.track.firstUs;
        if (q->ascending ? worst <= saturatingSub(reached, q->maxLagUs)
                         : worst >= saturatingAdd(reached, q->maxLagUs)) {
            break;
        }
    }
    return DBResult::ok;
}

sql::Statement* TrackReader::attributesStatement()
{
    static const std::string kSql = "SELECT attributes FROM track WHERE id = ?";
    return m_db.cached(kSql);
}

DBResult TrackReader::matchesWords(sql::Statement& attributes, std::int64_t rowId, bool* matches)
{
    // The attributes alone, about a microsecond a row on 1M tracks.
    *matches = false;
    attributes.bind(1, rowId);
    if (attributes.step()) {
        const ProfileTimer timer(m_profile, &Profile::matcher);
        if (m_profile)
            ++m_profile->rowsMatched;
        *matches = m_matcher.matches(attributes.blob(0), m_dictionary);
    }
    const DBResult result = attributes.result();
    attributes.reset();
    return result;
}

DBResult TrackReader::walkDevice(Query* q, std::int64_t device, std::vector<Row>* rows)
{
    // The device's index in the order asked for, a chunk at a time, next to the words' prefix
    // list (its own, not merged) read in row id order as far as the chunk reaches: only the
    // chunk's rows that the list holds are tested and read. Both cost what the walk covers, not
    // what the store holds. When a chunk's span holds far more matches than rows (a device
    // seldom seen, a word on most tracks), the list is left and the rows are tested directly.
    // Rows come in the answer's order, so the walk ends at the limit.
    // One bound on each side, the cursor's the tighter: SQLite seeks by one only.
    auto* ids =
        m_db.cached(q->ascending ? "SELECT id, first_us FROM track INDEXED BY track_device_first "
                                   "WHERE device = ?1 AND first_us < ?2 AND first_us >= ?3 "
                                   "AND (first_us, id) > (?3, ?4) "
                                   "ORDER BY first_us, id LIMIT ?5"
                                 : "SELECT id, first_us FROM track INDEXED BY track_device_first "
                                   "WHERE device = ?1 AND first_us <= ?2 AND first_us >= ?3 "
                                   "AND (first_us, id) < (?2, ?4) "
                                   "ORDER BY first_us DESC, id DESC LIMIT ?5");
    auto* listed = m_db.cached(
        q->ascending ? "SELECT rowid FROM track_text WHERE track_text MATCH ? ORDER BY rowid"
                     : "SELECT rowid FROM track_text WHERE track_text MATCH ? ORDER BY rowid DESC");
    auto* attributes = attributesStatement();
    if (!ids || !listed || !attributes)
        return m_db.lastResult();
    const std::string prefixLists = prefixQuery();
    listed->reset();
    listed->bindText(1, prefixLists);
    // The words' own lists, should their prefixes' lists turn out to hold mostly other words.
    std::string ownLists = prefixQuery(std::numeric_limits<int>::max());
    if (ownLists == prefixLists)
        ownLists.clear();
    std::size_t tested = 0;
    std::size_t matched = 0;
    const std::size_t limit = q->limit >= 0 ? static_cast<std::size_t>(q->limit) : SIZE_MAX;
    const std::size_t maxListed = static_cast<std::size_t>(kDeviceChunk * kListedPerRow);
    // Past `bound` in the walk's direction.
    const auto beyond = [q](std::int64_t rowId, std::int64_t bound) {
        return q->ascending ? rowId > bound : rowId < bound;
    };
    const auto inOrder = [q](std::int64_t a, std::int64_t b) {
        return q->ascending ? a < b : a > b;
    };
    // The last entry walked; the window's end (last first appearance before it) or start first.
    std::int64_t cursorFirst = q->ascending ? q->lowFirstUs : saturatingSub(q->endUs, 1);
    std::int64_t cursorId = q->ascending ? kMinTime : kMaxTime;
    std::vector<std::int64_t> chunk;
    std::vector<std::int64_t> seen;
    bool listing = true;
    bool listEnded = false;
    std::size_t found = 0;
    DBResult result = DBResult::ok;
    for (;;) {
        chunk.clear();
        ids->reset();
        ids->bind(1, device);
        ids->bind(2, q->ascending ? q->endUs : cursorFirst);
        ids->bind(3, q->ascending ? cursorFirst : q->lowFirstUs);
        ids->bind(4, cursorId);
        ids->bind(5, kDeviceChunk);
        while (ids->step()) {
            chunk.push_back(ids->int64(0));
            cursorFirst = ids->int64(1);
        }
        if ((result = ids->result()) != DBResult::ok || chunk.empty())
            break;
        cursorId = chunk.back();
        // The list as far as the chunk's farthest row id, in the walk's direction.
        const std::int64_t bound = q->ascending ? *std::max_element(chunk.begin(), chunk.end())
                                                : *std::min_element(chunk.begin(), chunk.end());
        std::size_t read = 0;
        while (listing && !listEnded && (seen.empty() || !beyond(seen.back(), bound))) {
            if (!listed->step()) {
                if ((result = listed->result()) != DBResult::ok)
                    break;
                listEnded = true;
            } else if (seen.push_back(listed->int64(0)); ++read > maxListed) {
                listing = false;
            }
        }
        if (result != DBResult::ok)
            break;
        for (const std::int64_t rowId : chunk) {
            if (listing && !std::binary_search(seen.begin(), seen.end(), rowId, inOrder))
                continue;
            bool matches = false;
            if ((result = matchesWords(*attributes, rowId, &matches)) != DBResult::ok)
                break;
            tested += listing ? 1 : 0;
            if (!matches)
                continue;
            matched += listing ? 1 : 0;
            q->rowId = rowId;
            const std::size_t had = rows->size();
            if ((result = select(*q, device, rows)) != DBResult::ok)
                break;
            found += rows->size() - had;
            if (found >= limit)
                break;
        }
        if (result != DBResult::ok || found >= limit ||
            static_cast<std::int64_t>(chunk.size()) < kDeviceChunk) {
            break;
        }
        // Most of what the prefixes' lists gave were other words ("salami" for "salomi": under
        // one in kOwnListPrecision matched), and the walk goes on: the words' own lists, which
        // FTS5 merges in memory once (no prefix list has their length) at several times the cost
        // of a streamed entry, cost less than the rest of the longer ones. Read from the start, as
        // later chunks may hold rows before this one's in row id order; what this chunk's span
        // holds is not counted against the next chunk.
        if (listing && !ownLists.empty() && tested >= kDeviceChunk / 16 &&
            matched * kOwnListPrecision < tested) {
            listed->reset();
            listed->bindText(1, ownLists);
            ownLists.clear();
            seen.clear();
            listEnded = false;
            while (!listEnded && (seen.empty() || !beyond(seen.back(), bound))) {
                if (listed->step())
                    seen.push_back(listed->int64(0));
                else if ((result = listed->result()) == DBResult::ok)
                    listEnded = true;
                else
                    break;
            }
            if (result != DBResult::ok)
                break;
        }
    }
    ids->reset();
    listed->reset();
    return result;
}

DBResult TrackReader::rowBounds(Query* q)
{
    // A row whose first appearance is at least the lag past the end has, with every row
    // numbered after it, a first appearance at or past the end; likewise before the start.
    if (q->endUs != kMaxTime) {
        auto* s = m_db.cached(
            "SELECT min(id) FROM (SELECT id FROM track INDEXED BY track_first "
            "WHERE first_us >= ? ORDER BY first_us LIMIT 16)");
        if (!s)
            return m_db.lastResult();
        s->bind(1, saturatingAdd(q->endUs, q->maxLagUs));
        if (s->step() && !s->isNull(0))
            q->highRowId = s->int64(0);
        if (s->result() != DBResult::ok)
            return s->result();
    }
    const std::int64_t low = saturatingSub(q->lowFirstUs, q->maxLagUs);
    if (low != kMinTime) {
        auto* s = m_db.cached(
            "SELECT max(id) FROM (SELECT id FROM track INDEXED BY track_first "
            "WHERE first_us < ? ORDER BY first_us DESC LIMIT 16)");
        if (!s)
            return m_db.lastResult();
        s->bind(1, low);
        if (s->step() && !s->isNull(0))
            q->lowRowId = s->int64(0);
        if (s->result() != DBResult::ok)
            return s->result();
    }
    return DBResult::ok;
}

DBResult TrackReader::walk(const Query& q, std::vector<Row>* out, bool* gaveUp)
{
    const auto before = [&q](const Row& a, const Row& b) {
        return q.ascending ? a.key() < b.key() : b.key() < a.key();
    };
    auto* s = m_db.cached(q.sql);
    if (!s)
        return m_db.lastResult();
    const std::int64_t batch = std::max<std::int64_t>(2 * q.limit, 256);
    const auto limit = static_cast<std::size_t>(q.limit);
    // The best rows so far, at most `limit`, as a heap whose top is the last of them: a row that
    // does not rank before it is not decoded, and the walk stops at the first row past which no
    // row can, not at the end of a statement's batch, whose rest cost as much again.
    std::vector<Row> best;
    std::int64_t cursor = q.ascending ? q.lowRowId : q.highRowId;
    // The first appearance reached by the walk, the latest one walking down, else the earliest:
    // rows further on lie within the lag of it.
    std::int64_t reached = q.ascending ? kMinTime : kMaxTime;
    // Rows further on have larger ids walking up, smaller ones walking down, so a tie on first
    // appearance ranks them after the rows found.
    const auto nothingFurtherRanks = [&] {
        if (best.size() < limit)
            return false;
        const std::int64_t worst = best.front().stored.track.firstUs;
        return q.ascending ? worst <= saturatingSub(reached, q.maxLagUs)
                           : worst >= saturatingAdd(reached, q.maxLagUs);
    };
    std::int64_t read = 0;
    for (bool ended = false; !ended;) {
        s->reset();
        bindQuery(s, q, 0, batch);
        s->bind(20, q.ascending ? cursor : q.lowRowId);
        s->bind(21, q.ascending ? q.highRowId : cursor);
        std::int64_t rows = 0;
        while (s->step()) {
            ++rows;
            cursor = s->int64(TrackRow::kRowIdColumn);
            const std::int64_t first = s->int64(TrackRow::kFirstUsColumn);
            reached = q.ascending ? std::max(reached, first) : std::min(reached, first);
            const std::pair key(first, cursor);
            if (best.size() < limit ||
                (q.ascending ? key < best.front().key() : best.front().key() < key)) {
                Row row;
                if (auto r = readRow(*s, &row); r != DBResult::ok)
                    return r;
                if (best.size() == limit) {
                    std::pop_heap(best.begin(), best.end(), before);
                    best.back() = std::move(row);
                } else {
                    best.push_back(std::move(row));
                }
                std::push_heap(best.begin(), best.end(), before);
            }
            if (nothingFurtherRanks()) {
                ended = true;
                break;
            }
        }
        if (s->result() != DBResult::ok)
            return s->result();
        read += rows;
        if (ended || rows < batch)
            break;
        if (read >= kRowWalkBudget) {
            *gaveUp = true;
            return DBResult::ok;
        }
    }
    // Ended between two rows: the statement lets go of what it reads until its next use.
    s->reset();
    std::sort(best.begin(), best.end(), before);
    for (Row& row : best)
        out->push_back(std::move(row));
    return DBResult::ok;
}

bool TrackReader::decodePositions(std::string_view run, std::int64_t baseUs,
                                  std::vector<ObjectPosition>* out, bool positionsOnly)
{
    using Kind = StoreDictionary::Kind;
    std::vector<ObjectRecord> records;
    std::vector<AttributeList> lists;
    if (!ObjectRun::decode(run, baseUs, &records, &lists))
        return false;
    std::vector<std::vector<common::metadata::Attribute>> attributes(lists.size());
    for (std::size_t l = 0; l < lists.size(); ++l) {
        for (const auto& code : lists[l]) {
            auto attribute = AttributeCoder::decode(code, m_dictionary);
            if (!attribute)
                return false;
            attributes[l].push_back(std::move(*attribute));
        }
    }
    ZuUuid device;
    std::uint32_t deviceKey = 0;
    for (const auto& r : records) {
        if (positionsOnly &&
            (r.kind == static_cast<std::uint8_t>(common::metadata::ObjectMetadataType::bestShot) ||
             r.kind == static_cast<std::uint8_t>(
                           common::metadata::ObjectMetadataType::externalBestShot))) {
            continue;
        }
        if (r.device != deviceKey || device.isNull()) {
            const std::string* bytes = m_dictionary.value(Kind::device, r.device);
            if (!bytes)
                return false;
            device = decodeUuid(*bytes);
            deviceKey = r.device;
        }
        ObjectPosition p;
        p.deviceId = device;
        p.timestampUs = r.timestampUs;
        p.durationUs = r.durationUs;
        p.boundingBox = r.box;
        if (r.attributes < attributes.size())
            p.attributes = attributes[r.attributes];
        out->push_back(std::move(p));
    }
    return true;
}

DBResult TrackReader::loadPositions(const StoredTrack& stored, ObjectTrackEx* track)
{
    for (const std::int64_t chunk : stored.chunks) {
        auto* s = m_db.cached("SELECT data FROM position WHERE id = ?");
        if (!s)
            return m_db.lastResult();
        s->bind(1, chunk);
        // Chunks written while the track was open hold its best shots too.
        if (s->step() && !decodePositions(s->blob(0), 0, &track->objectPositionSequence, true)) {
            return m_db.fail(SQLITE_CORRUPT, "a chunk of positions that cannot be read");
        }
        if (s->result() != DBResult::ok)
            return s->result();
    }
    return DBResult::ok;
}

}  // namespace kest::analytics::db
