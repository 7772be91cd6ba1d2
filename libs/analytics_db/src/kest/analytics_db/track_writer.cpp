#include "track_writer.h"

#include <algorithm>

#include <kest/sql/transaction.h>
#include <kest/utils/log/log.h>

#include "byte_reader.h"
#include "byte_writer.h"
#include "storage_schema.h"
#include "uuid_bytes.h"

namespace kest::analytics::db {

using common::metadata::Attribute;
using common::metadata::ObjectMetadata;
using common::metadata::ObjectMetadataPacket;
using common::metadata::ObjectMetadataType;
using sql::DBResult;
using Kind = StoreDictionary::Kind;

struct TrackWriter::OpenTrack
{
    StoredTrack stored;
    /** The dictionary key of the track's device, for its clock. */
    std::uint32_t deviceKey = 0;
    /** Whether the store holds a row of it (written before it ended, or ended and reopened). */
    bool hasRow = false;
    /** The attributes of that row, whose words the full-text index holds. */
    std::vector<Attribute> storedAttributes;
    /** Runs of its objects in the journal, not in a chunk yet, oldest first; and their rows. */
    std::vector<std::shared_ptr<const std::string>> pieces;
    std::vector<std::int64_t> journalRows;
    std::size_t pieceObjects = 0;
    SteadyClock::time_point journaledSince;
    /** The latest first appearance of the tracks numbered before it (see kMaxLagKey). */
    std::int64_t precedingFirstUs = kNoFirstUs;
    SteadyClock::time_point touched;
    std::shared_ptr<const OpenTrackView> view;

    // The objects of the batch in hand, with their attribute lists.
    bool inBatch = false;
    std::vector<ObjectRecord> batch;
    std::vector<AttributeList> batchLists;
    std::vector<const std::vector<Attribute>*> batchListSources;
};

namespace {

constexpr const char* kSeqKey = "seq";
constexpr const char* kNextRowIdKey = "nextRowId";
constexpr const char* kMaxSpanKey = "maxSpanUs";
constexpr const char* kDictionaryKey = "dictionary";

/** Modular: spans of tracks whose times are near the ends of the range stay defined. */
std::int64_t span(std::int64_t first, std::int64_t last)
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(last) -
                                     static_cast<std::uint64_t>(first));
}

bool isBestShot(std::uint8_t kind)
{
    return kind == static_cast<std::uint8_t>(ObjectMetadataType::bestShot) ||
           kind == static_cast<std::uint8_t>(ObjectMetadataType::externalBestShot);
}

}  // namespace

TrackWriter::TrackWriter(std::shared_ptr<OpenTracksSnapshots> snapshots)
    : m_snapshots(std::move(snapshots))
{}

TrackWriter::~TrackWriter() = default;

DBResult TrackWriter::open(const std::string& file, const sql::ConnectionOptions& options)
{
    if (auto r = m_db.open(file, options); r != DBResult::ok)
        return r;
    if (auto r = applySchema(m_db, file, options); r != DBResult::ok)
        return r;
    if (!m_tokenizer.open(m_db.handle()))
        return m_db.fail(1, "fts5 tokenizer");
    return recover();
}

DBResult TrackWriter::loadMeta()
{
    auto* s = m_db.cached("SELECT key, value FROM meta");
    if (!s)
        return m_db.lastResult();
    m_seq = 0;
    m_nextRowId = 1;
    m_maxSpanUs = 0;
    m_maxFirstUs = kNoFirstUs;
    m_maxLagUs = 0;
    m_storedMeta.clear();
    while (s->step()) {
        const std::string_view key = s->text(0);
        const std::int64_t value = s->int64(1);
        m_storedMeta[std::string(key)] = value;
        if (key == kSeqKey)
            m_seq = value;
        else if (key == kNextRowIdKey)
            m_nextRowId = value;
        else if (key == kMaxSpanKey)
            m_maxSpanUs = value;
        else if (key == kMaxFirstKey)
            m_maxFirstUs = value;
        else if (key == kMaxLagKey)
            m_maxLagUs = value;
    }
    if (s->result() != DBResult::ok)
        return s->result();
    // Numbers are never given twice, whatever the meta row says.
    auto* last = m_db.cached("SELECT max(id) FROM track");
    if (!last)
        return m_db.lastResult();
    if (last->step() && !last->isNull(0))
        m_nextRowId = std::max(m_nextRowId, last->int64(0) + 1);
    return last->result();
}

DBResult TrackWriter::recover()
{
    m_open.clear();
    m_journalRefs.clear();
    m_unreferencedJournalRows.clear();
    m_dictionary.dropUnsaved();
    if (auto r = m_dictionary.load(m_db); r != DBResult::ok)
        return r;
    if (auto r = loadMeta(); r != DBResult::ok)
        return r;

    // Rebuild the open tracks from the journal: each run that a stored row does not hold yet.
    auto select = m_db.prepare("SELECT id, data FROM journal ORDER BY id");
    if (!select)
        return m_db.lastResult();
    std::unordered_set<std::int64_t> ended;
    std::unordered_map<std::int64_t, OpenTrack*> byRow;
    const auto now = SteadyClock::now();
    std::size_t runs = 0;
    while (select->step()) {
        const std::int64_t journalRow = select->int64(0);
        ByteReader in(select->blob(1));
        std::uint64_t sections = 0;
        in.getVarint(&sections);
        std::int64_t rowId = 0;
        bool referenced = false;
        for (std::uint64_t i = 0; i < sections; ++i) {
            std::uint64_t head = 0;
            std::string_view piece;
            ZuUuid id;
            if (!in.getVarint(&head))
                break;
            rowId += static_cast<std::int64_t>(head >> 1);
            if (head & 1) {
                std::int64_t high = 0, low = 0;
                if (!in.getFixed(&high) || !in.getFixed(&low))
                    break;
                id = TrackRow::idOf(high, low);
            }
            if (!in.getBytes(&piece))
                break;
            if (ended.contains(rowId))
                continue;
            OpenTrack* track = nullptr;
            if (auto it = byRow.find(rowId); it != byRow.end()) {
                track = it->second;
            } else {
                StoredTrack stored;
                bool found = false;
                if (auto r = findStored(ZuUuid(), rowId, &stored, &found); r != DBResult::ok)
                    return r;
                if (found && stored.sealed >= journalRow) {
                    ended.insert(rowId);
                    continue;
                }
                if (!found && id.isNull()) {
                    KEST_WARNING(this, "Journal row %1 continues track row %2, which is unknown",
                                 journalRow, rowId);
                    ended.insert(rowId);
                    continue;
                }
                auto owned = std::make_unique<OpenTrack>();
                track = owned.get();
                if (found) {
                    track->stored = std::move(stored);
                    track->hasRow = true;
                    track->storedAttributes = track->stored.track.attributes;
                } else {
                    track->stored.rowId = rowId;
                    track->stored.track.id = id;
                }
                track->precedingFirstUs = m_maxFirstUs;
                track->touched = now;
                track->journaledSince = now;
                byRow.emplace(rowId, track);
                m_open.emplace(track->stored.track.id, std::move(owned));
            }
            std::vector<ObjectRecord> records;
            std::vector<AttributeList> lists;
            if (!ObjectRun::decode(piece, 0, &records, &lists)) {
                KEST_WARNING(this, "Journal row %1 holds a malformed run of track row %2",
                             journalRow, rowId);
                continue;
            }
            std::vector<std::vector<Attribute>> attributes(lists.size());
            for (std::size_t l = 0; l < lists.size(); ++l) {
                for (const auto& code : lists[l]) {
                    if (auto a = AttributeCoder::decode(code, m_dictionary))
                        attributes[l].push_back(std::move(*a));
                }
            }
            TrackAggregate& t = track->stored.track;
            for (const auto& r : records) {
                const auto* device = m_dictionary.value(Kind::device, r.device);
                const auto* type = m_dictionary.value(Kind::type, r.type);
                const auto* engine = m_dictionary.value(Kind::engine, r.engine);
                if (!device || !type || !engine)
                    continue;
                t.addSighting({r.timestampUs, r.durationUs, decodeUuid(*device), *type,
                               decodeUuid(*engine), static_cast<ObjectMetadataType>(r.kind), r.box,
                               static_cast<common::metadata::StreamIndex>(int{r.stream} - 1)});
                if (r.attributes < attributes.size())
                    t.addAttributes(attributes[r.attributes]);
            }
            if (track->deviceKey == 0) {
                track->deviceKey = m_dictionary.key(Kind::device, encodeUuid(t.deviceId));
            }
            track->pieces.push_back(std::make_shared<const std::string>(piece));
            track->journalRows.push_back(journalRow);
            track->pieceObjects += records.size();
            ++m_journalRefs[journalRow];
            referenced = true;
            ++runs;
        }
        if (!referenced)
            m_unreferencedJournalRows.push_back(journalRow);
    }
    if (select->result() != DBResult::ok)
        return select->result();
    select.reset();
    m_db.resetCached();
    for (auto& [id, track] : m_open)
        track->view = viewOf(*track);
    m_published = snapshot(m_seq);
    m_snapshots->publish(m_published);
    if (runs > 0) {
        KEST_INFO(this, "Rebuilt %1 open tracks from %2 journal runs", m_open.size(), runs);
    }
    return DBResult::ok;
}

DBResult TrackWriter::findStored(const ZuUuid& id, std::int64_t rowId, StoredTrack* out,
                                 bool* found)
{
    static const std::string kById = std::string("SELECT ") + TrackRow::kColumns +
                                     " FROM track t WHERE t.id_key = ?1 AND t.id_lo = ?2";
    static const std::string kByRow =
        std::string("SELECT ") + TrackRow::kColumns + " FROM track t WHERE t.id = ?1";
    *found = false;
    auto* s = m_db.cached(rowId != 0 ? kByRow : kById);
    if (!s)
        return m_db.lastResult();
    if (rowId != 0) {
        s->bind(1, rowId);
    } else {
        const auto [high, low] = TrackRow::idHalves(id);
        s->bind(1, high);
        s->bind(2, low);
    }
    if (s->step()) {
        if (!TrackRow::read(*s, 0, m_dictionary, out)) {
            s->reset();
            return m_db.fail(11 /*SQLITE_CORRUPT*/, "a track row names an unknown key");
        }
        *found = true;
    }
    const DBResult result = s->result();
    s->reset();
    return result;
}

TrackWriter::OpenTrack* TrackWriter::openTrackFor(const ZuUuid& id, DBResult* result)
{
    if (auto it = m_open.find(id); it != m_open.end())
        return it->second.get();
    auto track = std::make_unique<OpenTrack>();
    bool found = false;
    *result = findStored(id, 0, &track->stored, &found);
    if (*result != DBResult::ok)
        return nullptr;
    if (found) {
        track->hasRow = true;
        track->storedAttributes = track->stored.track.attributes;
    } else {
        track->stored.rowId = m_nextRowId++;
        track->stored.track.id = id;
    }
    track->precedingFirstUs = m_maxFirstUs;
    return m_open.emplace(id, std::move(track)).first->second.get();
}

void TrackWriter::addObject(OpenTrack& track, const ObjectMetadataPacket& packet,
                            const ObjectMetadata& object, std::uint32_t deviceKey)
{
    TrackAggregate& t = track.stored.track;
    const bool first = !t.hasData();
    t.addSighting({packet.timestampUs, packet.durationUs, packet.deviceId, object.typeId,
                   object.analyticsEngineId, object.objectMetadataType, object.boundingBox,
                   packet.streamIndex});
    if (first) {
        m_maxFirstUs = std::max(m_maxFirstUs, t.firstUs);
        track.deviceKey = deviceKey;
    }
    if (track.deviceKey == 0 || t.deviceId == packet.deviceId)
        track.deviceKey = deviceKey;

    // Objects of a track mostly repeat the attributes of the one before: compared, not merged.
    std::uint32_t list = 0;
    const auto& sources = track.batchListSources;
    if (!sources.empty() && *sources.back() == object.attributes) {
        list = static_cast<std::uint32_t>(sources.size() - 1);
    } else {
        t.addAttributes(object.attributes);
        AttributeList codes;
        codes.reserve(object.attributes.size());
        for (const auto& a : object.attributes)
            codes.push_back(m_coder.encode(a));
        list = static_cast<std::uint32_t>(track.batchLists.size());
        track.batchLists.push_back(std::move(codes));
        track.batchListSources.push_back(&object.attributes);
    }

    ObjectRecord r;
    r.timestampUs = packet.timestampUs;
    r.durationUs = packet.durationUs;
    r.device = deviceKey;
    r.type = m_dictionary.key(Kind::type, object.typeId);
    r.engine = m_dictionary.key(Kind::engine, encodeUuid(object.analyticsEngineId));
    r.kind = static_cast<std::uint8_t>(object.objectMetadataType);
    r.stream = static_cast<std::uint8_t>(static_cast<int>(packet.streamIndex) + 1);
    r.box = object.boundingBox;
    r.attributes = list;
    track.batch.push_back(r);
}

DBResult TrackWriter::write(const std::vector<PacketPtr>& packets)
{
    // Reads of stored tracks happen inside the write transaction too: outside it, each would take
    // and drop the WAL read lock on its own.
    if (auto r = m_db.exec("BEGIN IMMEDIATE"); r != DBResult::ok)
        return r;
    std::vector<OpenTrack*> touched;
    DBResult result = DBResult::ok;
    const auto now = SteadyClock::now();
    for (const auto& packet : packets) {
        const std::uint32_t deviceKey =
            m_dictionary.key(Kind::device, encodeUuid(packet->deviceId));
        auto [time, inserted] = m_deviceTime.try_emplace(deviceKey, packet->timestampUs);
        if (!inserted)
            time->second = std::max(time->second, packet->timestampUs);
        for (const auto& object : packet->objectMetadataList) {
            if (object.trackId.isNull())
                continue;
            OpenTrack* track = openTrackFor(object.trackId, &result);
            if (!track)
                break;
            if (!track->inBatch) {
                track->inBatch = true;
                touched.push_back(track);
            }
            track->touched = now;
            addObject(*track, *packet, object, deviceKey);
        }
        if (result != DBResult::ok)
            break;
    }
    if (result == DBResult::ok) {
        std::vector<OpenTrack*> ending, flushing;
        for (auto& [id, owned] : m_open) {
            OpenTrack& t = *owned;
            const auto time = m_deviceTime.find(t.deviceKey);
            const bool ended = (time != m_deviceTime.end() &&
                                span(t.stored.track.lastUs, time->second) >= kCloseGapUs &&
                                time->second > t.stored.track.lastUs) ||
                               now - t.touched >= kIdleClose;
            if (ended)
                ending.push_back(&t);
            else if (t.pieceObjects + t.batch.size() >= kFlushObjects ||
                     (!t.journalRows.empty() && now - t.journaledSince >= kMaxJournalAge))
                flushing.push_back(&t);
        }
        if (m_open.size() - ending.size() > kMaxOpenTracks) {
            std::vector<OpenTrack*> rest;
            for (auto& [id, owned] : m_open) {
                if (std::find(ending.begin(), ending.end(), owned.get()) == ending.end())
                    rest.push_back(owned.get());
            }
            const std::size_t excess = rest.size() - kMaxOpenTracks;
            std::nth_element(rest.begin(), rest.begin() + excess, rest.end(),
                             [](auto* a, auto* b) { return a->touched < b->touched; });
            ending.insert(ending.end(), rest.begin(), rest.begin() + excess);
            std::erase_if(flushing, [&](auto* t) {
                return std::find(rest.begin(), rest.begin() + excess, t) != rest.begin() + excess;
            });
        }
        result = commit(std::move(flushing), std::move(ending));
    }
    if (result != DBResult::ok) {
        m_lastError = m_db.lastError();
        m_db.resetCached();
        m_db.exec("ROLLBACK");
        KEST_WARNING(this, "A batch was not written (%1: %2); rebuilding the open tracks", result,
                     m_lastError);
        if (auto r = recover(); r != DBResult::ok)
            KEST_ERROR(this, "Rebuilding the open tracks failed: %1", r);
        return result;
    }
    return DBResult::ok;
}

DBResult TrackWriter::closeTracks(bool idleOnly)
{
    const auto now = SteadyClock::now();
    std::vector<OpenTrack*> ending;
    for (auto& [id, owned] : m_open) {
        if (!idleOnly || now - owned->touched >= kIdleClose)
            ending.push_back(owned.get());
    }
    if (ending.empty() && m_unreferencedJournalRows.empty())
        return DBResult::ok;
    if (auto r = m_db.exec("BEGIN IMMEDIATE"); r != DBResult::ok)
        return r;
    const DBResult result = commit({}, std::move(ending));
    if (result != DBResult::ok) {
        m_lastError = m_db.lastError();
        m_db.resetCached();
        m_db.exec("ROLLBACK");
        recover();
    }
    return result;
}

DBResult TrackWriter::commit(std::vector<OpenTrack*> toWrite, std::vector<OpenTrack*> toClose)
{
    const std::int64_t seq = m_seq + 1;
    for (OpenTrack* t : toWrite) {
        if (auto r = writeTrack(*t, false); r != DBResult::ok)
            return r;
    }
    for (OpenTrack* t : toClose) {
        if (auto r = writeTrack(*t, true); r != DBResult::ok)
            return r;
    }

    // The runs of this batch's tracks that go on, one journal row for the batch.
    std::vector<OpenTrack*> journaled;
    for (auto& [id, owned] : m_open) {
        if (!owned->batch.empty())
            journaled.push_back(owned.get());
    }
    std::sort(journaled.begin(), journaled.end(),
              [](auto* a, auto* b) { return a->stored.rowId < b->stored.rowId; });
    const auto now = SteadyClock::now();
    if (!journaled.empty()) {
        std::string data;
        ByteWriter w(&data);
        w.putVarint(journaled.size());
        std::int64_t previousRowId = 0;
        for (OpenTrack* t : journaled) {
            const bool intro = t->journalRows.empty() && !t->hasRow;
            w.putVarint((static_cast<std::uint64_t>(t->stored.rowId - previousRowId) << 1) |
                        (intro ? 1 : 0));
            previousRowId = t->stored.rowId;
            if (intro) {
                const auto [high, low] = TrackRow::idHalves(t->stored.track.id);
                w.putFixed(high);
                w.putFixed(low);
            }
            auto piece =
                std::make_shared<const std::string>(ObjectRun::encode(t->batch, t->batchLists, 0));
            w.putBytes(*piece);
            if (t->journalRows.empty())
                t->journaledSince = now;
            t->pieces.push_back(std::move(piece));
            t->journalRows.push_back(seq);
            t->pieceObjects += t->batch.size();
            ++m_journalRefs[seq];
        }
        auto* s = m_db.cached("INSERT INTO journal(id, data) VALUES(?, ?)");
        if (!s)
            return m_db.lastResult();
        s->bind(1, seq);
        s->bindBlob(2, data);
        if (auto r = s->exec(); r != DBResult::ok)
            return r;
    }
    for (const std::int64_t row : m_unreferencedJournalRows) {
        auto* s = m_db.cached("DELETE FROM journal WHERE id = ?");
        if (!s)
            return m_db.lastResult();
        s->bind(1, row);
        if (auto r = s->exec(); r != DBResult::ok)
            return r;
    }

    if (auto r = m_dictionary.saveAdded(m_db); r != DBResult::ok)
        return r;
    const std::pair<const char*, std::int64_t> meta[] = {
        {kSeqKey, seq},
        {kNextRowIdKey, m_nextRowId},
        {kMaxSpanKey, m_maxSpanUs},
        {kMaxFirstKey, m_maxFirstUs},
        {kMaxLagKey, m_maxLagUs},
        {kDictionaryKey, static_cast<std::int64_t>(m_dictionary.entries())},
    };
    for (const auto& [key, value] : meta) {
        const auto stored = m_storedMeta.find(key);
        if (stored != m_storedMeta.end() && stored->second == value)
            continue;
        if (auto r = storeMeta(key, value); r != DBResult::ok)
            return r;
    }

    // What searches see once the commit is visible; published first, withdrawn on failure.
    for (OpenTrack* t : journaled)
        t->view = viewOf(*t);
    for (OpenTrack* t : toWrite)
        t->view = viewOf(*t);
    auto published = snapshot(seq);
    m_snapshots->publish(published);
    m_db.resetCached();
    if (auto r = m_db.exec("COMMIT"); r != DBResult::ok) {
        m_snapshots->withdraw(seq);
        return r;
    }
    m_published = std::move(published);
    m_dictionary.keepSaved();
    for (const auto& [key, value] : meta)
        m_storedMeta[key] = value;
    m_seq = seq;
    m_unreferencedJournalRows.clear();
    for (auto& [id, owned] : m_open) {
        owned->inBatch = false;
        owned->batch.clear();
        owned->batchLists.clear();
        owned->batchListSources.clear();
    }
    return DBResult::ok;
}

DBResult TrackWriter::writeTrack(OpenTrack& track, bool closing)
{
    StoredTrack& stored = track.stored;
    TrackAggregate& t = stored.track;

    // Every position of the pieces and of the batch, with their attribute lists merged.
    std::vector<ObjectRecord> positions;
    std::vector<AttributeList> lists;
    const auto collect = [&](const std::vector<ObjectRecord>& records,
                             const std::vector<AttributeList>& ownLists) {
        std::vector<std::uint32_t> mapped(ownLists.size(), 0);
        for (std::size_t l = 0; l < ownLists.size(); ++l) {
            const auto it = std::find(lists.begin(), lists.end(), ownLists[l]);
            mapped[l] = static_cast<std::uint32_t>(it - lists.begin());
            if (it == lists.end())
                lists.push_back(ownLists[l]);
        }
        for (ObjectRecord r : records) {
            if (isBestShot(r.kind))
                continue;
            r.attributes = r.attributes < mapped.size() ? mapped[r.attributes] : 0;
            // Positions carry neither kind, type, engine nor stream: constant in the chunk.
            r.kind = 0;
            r.type = 0;
            r.engine = 0;
            r.stream = 0;
            positions.push_back(r);
        }
    };
    for (const auto& piece : track.pieces) {
        std::vector<ObjectRecord> records;
        std::vector<AttributeList> pieceLists;
        if (ObjectRun::decode(*piece, 0, &records, &pieceLists))
            collect(records, pieceLists);
    }
    collect(track.batch, track.batchLists);
    std::stable_sort(positions.begin(), positions.end(),
                     [](const auto& a, const auto& b) { return a.timestampUs < b.timestampUs; });

    if (!positions.empty()) {
        if (stored.parts < kMaxPositionChunks) {
            auto* s = m_db.cached("INSERT INTO position(id, data) VALUES(?, ?)");
            if (!s)
                return m_db.lastResult();
            s->bind(1, positionChunkId(stored.rowId, stored.parts));
            s->bindBlob(2, ObjectRun::encode(positions, lists, t.firstUs));
            if (auto r = s->exec(); r != DBResult::ok)
                return r;
            ++stored.parts;
        } else {
            // Out of chunk numbers: the last chunk takes them.
            const std::int64_t chunk = positionChunkId(stored.rowId, stored.parts - 1);
            auto* read = m_db.cached("SELECT data FROM position WHERE id = ?");
            if (!read)
                return m_db.lastResult();
            read->bind(1, chunk);
            std::vector<ObjectRecord> old;
            std::vector<AttributeList> oldLists;
            if (read->step())
                ObjectRun::decode(read->blob(0), t.firstUs, &old, &oldLists);
            read->reset();
            std::vector<ObjectRecord> mine = std::move(positions);
            std::vector<AttributeList> myLists = std::move(lists);
            positions.clear();
            lists.clear();
            collect(old, oldLists);
            collect(mine, myLists);
            auto* s = m_db.cached("UPDATE position SET data = ? WHERE id = ?");
            if (!s)
                return m_db.lastResult();
            s->bindBlob(1, ObjectRun::encode(positions, lists, t.firstUs));
            s->bind(2, chunk);
            if (auto r = s->exec(); r != DBResult::ok)
                return r;
        }
    }

    stored.sealed = m_seq + 1;
    // A row of a new track never replaces one: its number is new.
    auto* row = m_db.cached(track.hasRow ? TrackRow::kReplace : TrackRow::kInsert);
    if (!row)
        return m_db.lastResult();
    TrackRow::bind(*row, stored, m_coder, m_dictionary);
    if (auto r = row->exec(); r != DBResult::ok)
        return r;

    const bool wordsChanged = !track.hasRow || track.storedAttributes != t.attributes;
    if (track.hasRow && wordsChanged) {
        auto* s =
            m_db.cached("INSERT INTO track_text(track_text, rowid, text) VALUES('delete', ?, ?)");
        if (!s)
            return m_db.lastResult();
        s->bind(1, stored.rowId);
        s->bindText(2, attributesSearchText(track.storedAttributes));
        if (auto r = s->exec(); r != DBResult::ok)
            return r;
    }
    if (wordsChanged) {
        auto* s = m_db.cached("INSERT INTO track_text(rowid, text) VALUES(?, ?)");
        if (!s)
            return m_db.lastResult();
        s->bind(1, stored.rowId);
        s->bindText(2, attributesSearchText(t.attributes));
        if (auto r = s->exec(); r != DBResult::ok)
            return r;
    }
    if (!track.hasRow) {
        for (const auto& a : t.attributes)
            m_coder.noteStored(a);
    }

    m_maxSpanUs = std::max(m_maxSpanUs, span(t.firstUs, t.lastUs));
    m_maxLagUs = std::max(m_maxLagUs, lagOf(track.precedingFirstUs, t.firstUs));

    for (const std::int64_t journalRow : track.journalRows) {
        const auto it = m_journalRefs.find(journalRow);
        if (it == m_journalRefs.end() || --it->second > 0)
            continue;
        m_journalRefs.erase(it);
        m_unreferencedJournalRows.push_back(journalRow);
    }
    track.pieces.clear();
    track.journalRows.clear();
    track.pieceObjects = 0;
    track.batch.clear();
    track.batchLists.clear();
    track.batchListSources.clear();
    if (closing) {
        m_open.erase(t.id);  //< `track` is gone.
        return DBResult::ok;
    }
    track.hasRow = true;
    track.storedAttributes = t.attributes;
    return DBResult::ok;
}

DBResult TrackWriter::storeMeta(const char* key, std::int64_t value)
{
    auto* s = m_db.cached("INSERT OR REPLACE INTO meta(key, value) VALUES(?, ?)");
    if (!s)
        return m_db.lastResult();
    s->bindText(1, key);
    s->bind(2, value);
    return s->exec();
}

std::vector<std::string> TrackWriter::wordsOf(const std::vector<Attribute>& attributes)
{
    std::vector<std::string> words;
    for (const auto& a : attributes) {
        m_tokenizer.documentTokens(a.name, &words);
        m_tokenizer.documentTokens(a.value, &words);
    }
    std::sort(words.begin(), words.end());
    words.erase(std::unique(words.begin(), words.end()), words.end());
    return words;
}

std::shared_ptr<const OpenTrackView> TrackWriter::viewOf(const OpenTrack& track)
{
    auto view = std::make_shared<OpenTrackView>();
    view->stored = track.stored;
    view->hasRow = track.hasRow;
    // The words only change with the attributes, which mostly stay.
    if (track.view && track.view->stored.track.attributes == track.stored.track.attributes)
        view->words = track.view->words;
    else
        view->words = wordsOf(track.stored.track.attributes);
    view->pieces = track.pieces;
    return view;
}

std::shared_ptr<const OpenTracks> TrackWriter::snapshot(std::int64_t seq)
{
    auto tracks = std::make_shared<OpenTracks>();
    tracks->seq = seq;
    tracks->tracks.reserve(m_open.size());
    for (const auto& [id, owned] : m_open) {
        if (owned->view)
            tracks->tracks.push_back(owned->view);
    }
    return tracks;
}

DBResult TrackWriter::deleteExpired(std::int64_t cutoffUs, int maxRows, int* deleted)
{
    *deleted = 0;
    sql::Transaction transaction(m_db);
    if (transaction.beginResult() != DBResult::ok)
        return transaction.beginResult();

    std::vector<StoredTrack> rows;
    {
        // The first_us index bounds the scan; tracks still alive past the cutoff are few.
        static const std::string kSql = std::string("SELECT ") + TrackRow::kColumns +
                                        " FROM track t WHERE t.first_us < ?1 AND "
                                        "t.first_us + t.span_us < ?1 LIMIT ?2";
        auto* s = m_db.cached(kSql);
        if (!s)
            return m_db.lastResult();
        s->bind(1, cutoffUs);
        s->bind(2, maxRows);
        while (s->step()) {
            StoredTrack stored;
            // A track that is open again keeps its row: writing it back replaces the row.
            if (TrackRow::read(*s, 0, m_dictionary, &stored) && !m_open.contains(stored.track.id)) {
                rows.push_back(std::move(stored));
            }
        }
        if (s->result() != DBResult::ok)
            return s->result();
    }
    for (const auto& stored : rows) {
        auto* row = m_db.cached("DELETE FROM track WHERE id = ?");
        auto* chunks = m_db.cached("DELETE FROM position WHERE id >= ? AND id < ?");
        auto* text =
            m_db.cached("INSERT INTO track_text(track_text, rowid, text) VALUES('delete', ?, ?)");
        if (!row || !chunks || !text)
            return m_db.lastResult();
        row->bind(1, stored.rowId);
        chunks->bind(1, positionChunkId(stored.rowId, 0));
        chunks->bind(2, positionChunkId(stored.rowId + 1, 0));
        text->bind(1, stored.rowId);
        text->bindText(2, attributesSearchText(stored.track.attributes));
        for (auto* s : {row, chunks, text}) {
            if (auto r = s->exec(); r != DBResult::ok)
                return r;
        }
    }
    m_db.resetCached();
    if (auto r = transaction.commit(); r != DBResult::ok)
        return r;
    *deleted = static_cast<int>(rows.size());
    return DBResult::ok;
}

}  // namespace kest::analytics::db
