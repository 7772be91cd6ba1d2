#include "activity_counter.h"

#include <algorithm>
#include <optional>

#include <kest/analytics_db/time_arithmetic.h>
#include <kest/utils/assert.h>

#include "activity_histogram.h"
#include "bounding_box_grid.h"
#include "track_reader.h"
#include "track_row.h"
#include "uuid_bytes.h"

namespace kest::analytics::db {

using sql::DBResult;
using Kind = StoreDictionary::Kind;

namespace {

/** A type not looked up yet, and one that the filter leaves out. */
constexpr std::int64_t kUnknownType = -2;
constexpr std::int64_t kOtherType = -1;
/** Tries of a count whose state moved on while it started; the last one reads the table. */
constexpr int kAttempts = 4;

/** As the writer keeps spans: modular, so that tracks near the ends of time stay defined. */
std::int64_t lastOf(std::int64_t firstUs, std::int64_t spanUs)
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(firstUs) +
                                     static_cast<std::uint64_t>(spanUs));
}

std::string parameterList(int first, std::size_t count)
{
    std::string list;
    for (std::size_t i = 0; i < count; ++i)
        list += (i ? ", ?" : "?") + std::to_string(first + static_cast<int>(i));
    return list;
}

bool isReplaced(const std::vector<std::int64_t>& replaced, std::int64_t rowId)
{
    return !replaced.empty() && std::binary_search(replaced.begin(), replaced.end(), rowId);
}

}  // namespace

/** The store's dictionary keys of what the filter names. */
struct ActivityCounter::Keys
{
    std::vector<std::int64_t> devices;
    /** By device key: whether the filter selects it; empty when it names no device. */
    std::vector<char> deviceSelected;
    std::vector<std::int64_t> types;
    std::int64_t engine = 0;
};

/** What a count's read transaction sees of the store. */
struct ActivityCounter::State
{
    ActivityIndex::Version version{0, 0};
    std::int64_t dictionary = 0;
    std::int64_t maxSpanUs = 0;
};

ActivityCounter::ActivityCounter(sql::Database& db,
                                 std::shared_ptr<const OpenTracksSnapshots> openTracks,
                                 std::shared_ptr<const ActivityIndex> index)
    : m_db(db), m_openTracks(std::move(openTracks)), m_index(std::move(index))
{}

const std::string& ActivityCounter::lastError() const
{
    return m_error.empty() ? m_db.lastError() : m_error;
}

ResultCode ActivityCounter::count(const ActivityQuery& query, Activity* activity)
{
    m_error.clear();
    m_lastSource = Source::none;
    if (!query.isValid()) {
        KEST_ASSERT(false, "An activity count needs a valid query");
        return ResultCode::error;
    }
    if (!m_matcherOpen && !(m_matcherOpen = m_matcher.open(m_db.handle()))) {
        m_error = "the full-text tokenizer cannot be used";
        return ResultCode::error;
    }
    m_words = TextMatcher::words(query.filter.freeText);
    m_matcher.setQuery(m_words);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        ActivityHistogram histogram(query);
        bool retry = false;
        const DBResult result = countOnce(query, attempt + 1 == kAttempts, &histogram, &retry);
        if (result != DBResult::ok)
            return ResultCode::error;
        if (!retry) {
            *activity = histogram.result();
            return ResultCode::ok;
        }
    }
    m_error = "the count fell behind the writer's commits";
    return ResultCode::error;
}

DBResult ActivityCounter::readState(State* state)
{
    auto* s = m_db.cached(
        "SELECT key, value FROM meta WHERE key IN ('seq', 'dictionary', 'maxSpanUs', ?)");
    if (!s)
        return m_db.lastResult();
    s->bindText(1, ActivityIndex::kRetentionsKey);
    while (s->step()) {
        const std::string_view key = s->text(0);
        if (key == "seq")
            state->version.seq = s->int64(1);
        else if (key == "dictionary")
            state->dictionary = s->int64(1);
        else if (key == "maxSpanUs")
            state->maxSpanUs = s->int64(1);
        else
            state->version.retentions = s->int64(1);
    }
    if (s->result() != DBResult::ok)
        return s->result();
    if (static_cast<std::uint64_t>(state->dictionary) != m_dictionary.entries())
        return m_dictionary.load(m_db);
    return DBResult::ok;
}

DBResult ActivityCounter::countOnce(const ActivityQuery& query, bool lastAttempt,
                                    ActivityHistogram* histogram, bool* retry)
{
    const Filter& filter = query.filter;
    // The index holds neither engines nor track ids; grids it leaves to the track rows.
    const bool indexable =
        m_index && filter.objectTrackId.isNull() && filter.analyticsEngineId.isNull();
    // Taken before the read transaction starts: see ActivityIndex.
    std::optional<ActivityIndex::Reader> index;
    if (indexable)
        index.emplace(*m_index);

    if (auto r = m_db.exec("BEGIN"); r != DBResult::ok)
        return r;
    struct End
    {
        sql::Database& db;
        ~End()
        {
            db.resetCached();
            db.exec("COMMIT");
        }
    } end{m_db};

    State state;
    if (auto r = readState(&state); r != DBResult::ok)
        return r;
    std::shared_ptr<const OpenTracks> open;
    if (m_openTracks) {
        open = m_openTracks->get(state.version.seq);
        if (!open) {
            *retry = true;
            return DBResult::ok;
        }
    }
    if (index && !(index->usable() && index->version() == state.version)) {
        // A commit between the lock and the transaction, not published yet: again, unless the
        // index is off, or this is the last try.
        if (index->usable() && !lastAttempt) {
            *retry = true;
            return DBResult::ok;
        }
        index.reset();
    }

    std::vector<std::int64_t> replaced;
    if (open) {
        countOpen(query, *open, histogram);
        replaced = open->replacedRows;
        std::sort(replaced.begin(), replaced.end());
    }
    Keys keys;
    if (!keysOf(query, &keys))
        return DBResult::ok;
    if (index) {
        m_lastSource = Source::index;
        return countIndexed(query, keys, &index, replaced, histogram);
    }
    m_lastSource = Source::table;
    return countTable(query, keys, state.maxSpanUs, replaced, histogram);
}

bool ActivityCounter::keysOf(const ActivityQuery& query, Keys* keys) const
{
    const Filter& filter = query.filter;
    for (const ZuUuid& device : filter.deviceIds) {
        if (const auto key = m_dictionary.find(Kind::device, UuidBytes(device))) {
            keys->devices.push_back(*key);
            if (keys->deviceSelected.size() <= *key)
                keys->deviceSelected.resize(*key + 1);
            keys->deviceSelected[*key] = true;
        }
    }
    if (!filter.deviceIds.empty() && keys->devices.empty())
        return false;
    for (const std::string& type : filter.objectTypeId) {
        if (const auto key = m_dictionary.find(Kind::type, type))
            keys->types.push_back(*key);
    }
    if (!filter.objectTypeId.empty() && keys->types.empty())
        return false;
    if (!filter.analyticsEngineId.isNull()) {
        const auto key = m_dictionary.find(Kind::engine, UuidBytes(filter.analyticsEngineId));
        if (!key)
            return false;
        keys->engine = *key;
    }
    return true;
}

void ActivityCounter::countOpen(const ActivityQuery& query, const OpenTracks& open,
                                ActivityHistogram* histogram)
{
    const Filter& filter = query.filter;
    const std::int64_t startUs = msToUs(filter.timePeriod.startTimeMs);
    const std::int64_t endUs = msToUs(filter.timePeriod.endTimeMs());
    const std::optional<BoundingBoxGrid> box =
        filter.boundingBox ? std::optional(BoundingBoxGrid::ofRect(*filter.boundingBox))
                           : std::nullopt;
    const auto consider = [&](std::size_t index) {
        const OpenTrackView& view = *open.tracks[index];
        const TrackAggregate& t = view.stored.track;
        if ((!filter.deviceIds.empty() && !filter.deviceIds.contains(t.deviceId)) ||
            (!filter.objectTypeId.empty() && !filter.objectTypeId.contains(t.typeId)) ||
            (!filter.objectTrackId.isNull() && filter.objectTrackId != t.id) ||
            (!filter.analyticsEngineId.isNull() && filter.analyticsEngineId != t.engineId) ||
            (filter.withBestShotOnly && t.bestShotKind == 0) ||
            !(t.firstUs < endUs && t.lastUs >= startUs) || (box && !t.grid.intersects(*box)) ||
            !m_matcher.matchesTokens(view.attributes->words)) {
            return;
        }
        histogram->add(histogram->typeIndex(t.typeId), t.firstUs, t.lastUs);
        histogram->addCells(t.grid);
    };
    // A track id or devices name the few open tracks that can match.
    if (!filter.objectTrackId.isNull()) {
        if (const auto it = open.byId.find(filter.objectTrackId); it != open.byId.end())
            consider(it->second);
    } else if (!filter.deviceIds.empty()) {
        for (const ZuUuid& device : filter.deviceIds) {
            if (const auto it = open.byDevice.find(device); it != open.byDevice.end()) {
                for (const std::size_t index : it->second)
                    consider(index);
            }
        }
    } else {
        for (std::size_t index = 0; index < open.tracks.size(); ++index)
            consider(index);
    }
}

DBResult ActivityCounter::countIndexed(const ActivityQuery& query, const Keys& keys,
                                       std::optional<ActivityIndex::Reader>* indexReader,
                                       const std::vector<std::int64_t>& replaced,
                                       ActivityHistogram* histogram)
{
    const Filter& filter = query.filter;
    const ActivityIndex::Reader& index = **indexReader;
    const bool needsGrids = query.heatmap || filter.boundingBox;
    std::vector<Match> matches;
    const std::int64_t startMs = filter.timePeriod.startTimeMs;
    const std::int64_t endMs = filter.timePeriod.endTimeMs();
    const bool bestShotOnly = filter.withBestShotOnly;

    // The histogram's number of each type key, found as the keys come.
    std::vector<std::int64_t> typeSlots(m_dictionary.size(Kind::type) + 1, kUnknownType);
    const auto slotOf = [&](std::uint16_t type) -> std::int64_t {
        if (type >= typeSlots.size())
            return kOtherType;  //< Not of the state this count reads; it cannot be.
        std::int64_t& slot = typeSlots[type];
        if (slot == kUnknownType) {
            const std::string* name = m_dictionary.value(Kind::type, type);
            slot = name && (filter.objectTypeId.empty() || filter.objectTypeId.contains(*name))
                       ? static_cast<std::int64_t>(histogram->typeIndex(*name))
                       : kOtherType;
        }
        return slot;
    };
    const auto add = [&](std::int64_t rowId, const ActivityIndex::Entry& entry) {
        if (entry.firstMs >= endMs || entry.lastMs < startMs || (bestShotOnly && !entry.bestShot))
            return;
        if (!keys.deviceSelected.empty() &&
            (entry.device >= keys.deviceSelected.size() || !keys.deviceSelected[entry.device])) {
            return;
        }
        const std::int64_t slot = slotOf(entry.type);
        if (slot < 0)
            return;
        if (needsGrids)
            matches.push_back({rowId, slot, entry.firstMs, entry.lastMs});
        else
            histogram->addMs(static_cast<std::size_t>(slot), entry.firstMs, entry.lastMs);
    };

    if (m_words.empty()) {
        auto next = replaced.begin();
        index.forEach([&](std::int64_t rowId, const ActivityIndex::Entry& entry) {
            while (next != replaced.end() && *next < rowId)
                ++next;
            if (next == replaced.end() || *next != rowId)
                add(rowId, entry);
        });
    } else {
        auto* s = m_db.cached("SELECT rowid FROM track_text WHERE track_text MATCH ?");
        if (!s)
            return m_db.lastResult();
        s->bindText(1, TrackReader::ftsQuery(m_words));
        while (s->step()) {
            const std::int64_t rowId = s->int64(0);
            if (const ActivityIndex::Entry* entry = index.find(rowId);
                entry && !isReplaced(replaced, rowId)) {
                add(rowId, *entry);
            }
        }
        if (s->result() != DBResult::ok)
            return s->result();
    }
    if (!needsGrids)
        return DBResult::ok;
    const std::size_t stored = index.size();
    // The rows are read in the transaction's state, which is the index's: it may change now.
    indexReader->reset();
    return countGrids(query, &matches, stored, histogram);
}

DBResult ActivityCounter::countGrids(const ActivityQuery& query, std::vector<Match>* matches,
                                     std::size_t storedTracks, ActivityHistogram* histogram)
{
    const std::optional<BoundingBoxGrid> box =
        query.filter.boundingBox ? std::optional(BoundingBoxGrid::ofRect(*query.filter.boundingBox))
                                 : std::nullopt;
    const auto add = [&](const Match& match, std::string_view compactGrid) {
        const BoundingBoxGrid grid = BoundingBoxGrid::fromCompact(compactGrid);
        if (box && !grid.intersects(*box))
            return;
        histogram->addMs(static_cast<std::size_t>(match.slot), match.firstMs, match.lastMs);
        histogram->addCells(grid);
    };
    std::sort(matches->begin(), matches->end(),
              [](const Match& a, const Match& b) { return a.rowId < b.rowId; });
    const auto missing = [&] {
        return m_db.fail(1 /*SQLITE_ERROR*/, "a track row of the activity index is missing");
    };

    // A large share of the rows is read faster in one pass over the table than one by one.
    if (matches->size() * kGridScanShare >= storedTracks) {
        auto* s = m_db.cached("SELECT id, grid FROM track WHERE id >= ? ORDER BY id");
        if (!s)
            return m_db.lastResult();
        s->bind(1, matches->empty() ? 0 : matches->front().rowId);
        auto next = matches->begin();
        while (next != matches->end() && s->step()) {
            const std::int64_t rowId = s->int64(0);
            if (rowId > next->rowId)
                return missing();
            if (rowId == next->rowId)
                add(*next++, s->blob(1));
        }
        if (s->result() != DBResult::ok)
            return s->result();
        return next == matches->end() ? DBResult::ok : missing();
    }
    auto* s = m_db.cached("SELECT grid FROM track WHERE id = ?");
    if (!s)
        return m_db.lastResult();
    for (const Match& match : *matches) {
        s->reset();
        s->bind(1, match.rowId);
        if (!s->step())
            return s->result() != DBResult::ok ? s->result() : missing();
        add(match, s->blob(0));
    }
    return DBResult::ok;
}

DBResult ActivityCounter::countTable(const ActivityQuery& query, const Keys& keys,
                                     std::int64_t maxSpanUs,
                                     const std::vector<std::int64_t>& replaced,
                                     ActivityHistogram* histogram)
{
    const Filter& filter = query.filter;
    const std::int64_t startUs = msToUs(filter.timePeriod.startTimeMs);
    const std::int64_t endUs = msToUs(filter.timePeriod.endTimeMs());

    // ?1 end, ?2 lowest first appearance, ?3 start; then the optional tests, then the lists.
    std::string where = "t.first_us < ?1 AND t.first_us >= ?2 AND t.first_us + t.span_us >= ?3";
    if (!filter.objectTrackId.isNull())
        where += " AND t.id_key = ?4 AND t.id_lo = ?5";
    if (!filter.analyticsEngineId.isNull())
        where += " AND t.engine = ?6";
    if (filter.boundingBox)
        where += " AND grid_hits(t.grid, ?7)";
    if (!m_words.empty())
        where += " AND t.id IN (SELECT rowid FROM track_text WHERE track_text MATCH ?8)";
    if (filter.withBestShotOnly)
        where += " AND t.best != 0";
    constexpr int kFirstListParam = 10;
    if (!keys.devices.empty())
        where += " AND t.device IN (" + parameterList(kFirstListParam, keys.devices.size()) + ")";
    const int firstTypeParam = kFirstListParam + static_cast<int>(keys.devices.size());
    if (!keys.types.empty())
        where += " AND t.type IN (" + parameterList(firstTypeParam, keys.types.size()) + ")";
    const std::string sql = std::string("SELECT t.id, t.type, t.first_us, t.span_us") +
                            (query.heatmap ? ", t.grid" : "") + " FROM track t WHERE " + where;

    auto* s = m_db.cached(sql);
    if (!s)
        return m_db.lastResult();
    s->bind(1, endUs);
    s->bind(2, saturatingSub(startUs, maxSpanUs));
    s->bind(3, startUs);
    if (!filter.objectTrackId.isNull()) {
        const auto [high, low] = TrackRow::idHalves(filter.objectTrackId);
        s->bind(4, high);
        s->bind(5, low);
    }
    if (!filter.analyticsEngineId.isNull())
        s->bind(6, keys.engine);
    if (filter.boundingBox)
        s->bindBlob(7, BoundingBoxGrid::ofRect(*filter.boundingBox).toBytes());
    if (!m_words.empty())
        s->bindText(8, TrackReader::ftsQuery(m_words));
    for (std::size_t i = 0; i < keys.devices.size(); ++i)
        s->bind(kFirstListParam + static_cast<int>(i), keys.devices[i]);
    for (std::size_t i = 0; i < keys.types.size(); ++i)
        s->bind(firstTypeParam + static_cast<int>(i), keys.types[i]);

    std::vector<std::int64_t> typeSlots(m_dictionary.size(Kind::type) + 1, kUnknownType);
    while (s->step()) {
        if (isReplaced(replaced, s->int64(0)))
            continue;
        const std::int64_t type = s->int64(1);
        if (type < 0 || type >= static_cast<std::int64_t>(typeSlots.size()))
            return m_db.fail(1 /*SQLITE_ERROR*/, "a track row of a type that is not known");
        std::int64_t& slot = typeSlots[type];
        if (slot == kUnknownType) {
            const std::string* name = m_dictionary.value(Kind::type, type);
            if (!name)
                return m_db.fail(1 /*SQLITE_ERROR*/, "a track row of a type that is not known");
            slot = static_cast<std::int64_t>(histogram->typeIndex(*name));
        }
        const std::int64_t firstUs = s->int64(2);
        histogram->add(static_cast<std::size_t>(slot), firstUs, lastOf(firstUs, s->int64(3)));
        if (query.heatmap)
            histogram->addCells(BoundingBoxGrid::fromCompact(s->blob(4)));
    }
    return s->result();
}

}  // namespace kest::analytics::db
