#include "track_writer.h"

#include <algorithm>
#include <cstring>

#include <zlib.h>

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
    /**
     * Runs of its objects since it was last written, oldest first; the journal rows that hold
     * them or name them; the position rows of those written where they stay (0: in the journal).
     */
    std::vector<std::shared_ptr<const std::string>> pieces;
    std::vector<std::int64_t> journalRows;
    std::vector<std::int64_t> pieceChunks;
    std::size_t pieceObjects = 0;
    /** What `pieces` take in memory, about (see TrackWriter::kRunOverheadBytes). */
    std::size_t pieceBytes = 0;
    /**
     * The position rows among pieceChunks, for the track's row when it is written. The other
     * runs are decoded from `pieces` then: kept decoded as well, an open track's objects took
     * several times the memory of their runs (72 bytes an object against 5 to 9).
     */
    std::vector<std::int64_t> directChunks;
    SteadyClock::time_point journaledSince;
    /** The latest first appearance of the tracks numbered before it (see kMaxLagKey). */
    std::int64_t precedingFirstUs = kNoFirstUs;
    SteadyClock::time_point touched;
    std::shared_ptr<const OpenTrackView> view;

    /** The queues of TrackWriter::decide() hold it; its latest entry in the idle queue. */
    SteadyClock::time_point idleQueuedAt;
    /** Chosen to be written by the batch in hand; written and ending. */
    bool scheduled = false;
    bool closing = false;
    /** Ended, waiting in m_ended to be written with others; since when. */
    bool ended = false;
    SteadyClock::time_point endedAt;

    /**
     * The keys of the type and engine of its latest object: a track's objects repeat them, and
     * each lookup in the dictionary hashed the text.
     */
    std::string lastType;
    ZuUuid lastEngine;
    std::uint32_t lastTypeKey = 0;
    std::uint32_t lastEngineKey = 0;

    // The objects of the batch in hand, with their attribute lists.
    bool inBatch = false;
    /** Where commit() has its run of `batch` encoded (m_encodedRuns), if it has; -1: not. */
    std::int32_t encodedRun = -1;
    std::vector<ObjectRecord> batch;
    std::vector<AttributeList> batchLists;
    /**
     * The last of batchLists as given, in one run of bytes (appendAttributes): a track's objects
     * mostly repeat it, and the strings of the packet it came from lie all over the heap.
     */
    std::string batchListText;
};

namespace {

constexpr const char* kSeqKey = "seq";
constexpr const char* kNextRowIdKey = "nextRowId";
constexpr const char* kMaxSpanKey = "maxSpanUs";
constexpr const char* kDictionaryKey = "dictionary";

/** Empties `container` and frees its room (`container = {}` assigns an empty list, room kept). */
template <typename Container>
void releaseRoom(Container& container)
{
    Container().swap(container);
}

/** Appends each name and value of `attributes` to `text`: its size, then its bytes. */
void appendAttributes(const std::vector<Attribute>& attributes, std::string* text)
{
    for (const Attribute& a : attributes) {
        for (const std::string* s : {&a.name, &a.value}) {
            const auto size = static_cast<std::uint32_t>(s->size());
            text->append(reinterpret_cast<const char*>(&size), sizeof size);
            text->append(*s);
        }
    }
}

/** Whether `text`, of appendAttributes(), holds `attributes`. */
bool holdsAttributes(std::string_view text, const std::vector<Attribute>& attributes)
{
    for (const Attribute& a : attributes) {
        for (const std::string* s : {&a.name, &a.value}) {
            std::uint32_t size = 0;
            if (text.size() < sizeof size)
                return false;
            std::memcpy(&size, text.data(), sizeof size);
            text.remove_prefix(sizeof size);
            if (size != s->size() || text.size() < size ||
                std::memcmp(text.data(), s->data(), size) != 0) {
                return false;
            }
            text.remove_prefix(size);
        }
    }
    return text.empty();
}

/** Modular: spans of tracks whose times are near the ends of the range stay defined. */
std::int64_t span(std::int64_t first, std::int64_t last)
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(last) -
                                     static_cast<std::uint64_t>(first));
}

/**
 * A journal row as stored: its size, then the row compressed (zlib, fastest level): runs of one
 * batch repeat their attribute lists and headers, and what is journaled is written again later.
 */
bool packJournal(const std::string& row, std::string* out)
{
    out->clear();
    ByteWriter w(out);
    w.putVarint(row.size());
    const std::size_t header = out->size();
    uLongf size = compressBound(row.size());
    out->resize(header + size);
    if (compress2(reinterpret_cast<Bytef*>(out->data() + header), &size,
                  reinterpret_cast<const Bytef*>(row.data()), row.size(), 1) != Z_OK) {
        return false;
    }
    out->resize(header + size);
    return true;
}

bool unpackJournal(std::string_view stored, std::string* row)
{
    ByteReader r(stored);
    std::uint64_t size = 0;
    if (!r.getVarint(&size) || size > (std::uint64_t{1} << 32))
        return false;
    row->resize(size);
    uLongf unpacked = size;
    const std::string_view rest = r.rest();
    return uncompress(reinterpret_cast<Bytef*>(row->data()), &unpacked,
                      reinterpret_cast<const Bytef*>(rest.data()), rest.size()) == Z_OK &&
           unpacked == size;
}

/** What a run takes in a journal row: its bytes, or the number of its position row. */
std::size_t journaledBytes(const std::string& piece, std::int64_t chunk)
{
    return chunk != 0 ? sizeof(std::int64_t) : piece.size();
}

bool isBestShot(std::uint8_t kind)
{
    return kind == static_cast<std::uint8_t>(ObjectMetadataType::bestShot) ||
           kind == static_cast<std::uint8_t>(ObjectMetadataType::externalBestShot);
}

/**
 * Appends the positions among `records` to `positions`, their attribute lists merged into
 * `lists`. Positions carry neither kind, type, engine nor stream: they are constant in a chunk.
 */
void collectPositions(const std::vector<ObjectRecord>& records,
                      const std::vector<AttributeList>& recordLists,
                      std::vector<ObjectRecord>* positions, std::vector<AttributeList>* lists)
{
    std::vector<std::uint32_t> mapped(recordLists.size(), 0);
    for (std::size_t l = 0; l < recordLists.size(); ++l) {
        const auto it = std::find(lists->begin(), lists->end(), recordLists[l]);
        mapped[l] = static_cast<std::uint32_t>(it - lists->begin());
        if (it == lists->end())
            lists->push_back(recordLists[l]);
    }
    for (ObjectRecord r : records) {
        if (isBestShot(r.kind))
            continue;
        r.attributes = r.attributes < mapped.size() ? mapped[r.attributes] : 0;
        r.kind = 0;
        r.type = 0;
        r.engine = 0;
        r.stream = 0;
        positions->push_back(r);
    }
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
    if (auto r = m_checkpointer.start(file, options, m_db); r != DBResult::ok)
        return r;
    if (auto r = loadStoredIds(); r != DBResult::ok)
        return r;
    return recover();
}

DBResult TrackWriter::loadStoredIds()
{
    // The id index alone: about 0.5 s for 5M tracks, most of it setting the filter's bits. Row
    // ids are given in storing order and only the oldest are deleted, so their span is about the
    // count of rows, in two lookups where count(*) reads the whole index.
    auto span =
        m_db.prepare("SELECT (SELECT max(id) FROM track) - (SELECT min(id) FROM track) + 1");
    if (!span)
        return m_db.lastResult();
    const std::int64_t rows = span->step() && !span->isNull(0) ? span->int64(0) : 0;
    if (span->result() != DBResult::ok)
        return span->result();
    // Room for half as many again before the filter grows.
    m_storedIds.reset(static_cast<std::size_t>(rows) + static_cast<std::size_t>(rows) / 2);
    auto keys = m_db.prepare("SELECT id_key FROM track INDEXED BY track_id");
    if (!keys)
        return m_db.lastResult();
    while (keys->step())
        m_storedIds.add(static_cast<std::uint64_t>(keys->int64(0)));
    return keys->result();
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
    if (last->result() != DBResult::ok)
        return last->result();
    auto* lastChunk = m_db.cached("SELECT max(id) FROM position");
    if (!lastChunk)
        return m_db.lastResult();
    m_nextChunkId = 1;
    if (lastChunk->step() && !lastChunk->isNull(0))
        m_nextChunkId = lastChunk->int64(0) + 1;
    return lastChunk->result();
}

DBResult TrackWriter::recover()
{
    m_open.clear();
    m_openTrackBytes = 0;
    m_journal.clear();
    m_unreferencedJournalRows.clear();
    m_ends.clear();
    m_idle.clear();
    m_journalAges.clear();
    m_ended.clear();
    m_dictionary.dropUnsaved();
    m_deviceKeys.clear();
    if (auto r = m_dictionary.load(m_db); r != DBResult::ok)
        return r;
    if (auto r = loadMeta(); r != DBResult::ok)
        return r;

    // Rebuild the open tracks from the journal: each run that a stored row does not hold yet.
    // The ids of tracks without a row come with one of their runs, not always the first.
    auto select = m_db.prepare("SELECT id, data FROM journal ORDER BY id");
    if (!select)
        return m_db.lastResult();
    struct Section
    {
        std::int64_t rowId = 0;
        std::string_view piece;
        /** The position row that holds the run, if it is not in the journal row. */
        std::int64_t chunk = 0;
    };
    std::vector<std::pair<std::int64_t, std::string>> rows;
    std::unordered_map<std::int64_t, ZuUuid> ids;
    std::vector<std::vector<Section>> sectionsOfRows;
    while (select->step()) {
        std::string row;
        if (!unpackJournal(select->blob(1), &row)) {
            KEST_WARNING(this, "Journal row %1 cannot be read; its runs are lost",
                         select->int64(0));
        }
        rows.emplace_back(select->int64(0), std::move(row));
        sectionsOfRows.emplace_back();
        ByteReader in(rows.back().second);
        std::uint64_t sections = 0;
        in.getVarint(&sections);
        std::int64_t rowId = 0;
        for (std::uint64_t i = 0; i < sections; ++i) {
            std::uint64_t head = 0;
            std::string_view piece;
            if (!in.getVarint(&head))
                break;
            rowId += static_cast<std::int64_t>(head >> 2);
            if (head & kSectionIntro) {
                std::int64_t key = 0, low = 0;
                if (!in.getFixed(&key) || !in.getFixed(&low))
                    break;
                ids.emplace(rowId, TrackRow::idOf(key, low));
            }
            std::uint64_t chunk = 0;
            if (head & kSectionChunk ? !in.getVarint(&chunk) : !in.getBytes(&piece))
                break;
            sectionsOfRows.back().push_back({rowId, piece, static_cast<std::int64_t>(chunk)});
        }
    }
    if (select->result() != DBResult::ok)
        return select->result();
    std::unordered_set<std::int64_t> ended;
    std::unordered_map<std::int64_t, OpenTrack*> byRow;
    const auto now = SteadyClock::now();
    std::size_t runs = 0;
    for (std::size_t row = 0; row < rows.size(); ++row) {
        const std::int64_t journalRow = rows[row].first;
        JournalRow& entry = m_journal[journalRow];
        entry.bytes = rows[row].second.size();
        for (auto [rowId, piece, chunk] : sectionsOfRows[row]) {
            if (ended.contains(rowId))
                continue;
            std::string chunkBytes;
            if (chunk != 0) {
                auto* read = m_db.cached("SELECT data FROM position WHERE id = ?");
                if (!read)
                    return m_db.lastResult();
                read->bind(1, chunk);
                if (read->step())
                    chunkBytes = read->blob(0);
                read->reset();
                piece = chunkBytes;
            }
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
                const auto id = ids.find(rowId);
                if (!found && id == ids.end()) {
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
                    track->stored.track.id = id->second;
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
                track->deviceKey = m_dictionary.key(Kind::device, UuidBytes(t.deviceId));
            }
            addPiece(*track, std::make_shared<const std::string>(piece));
            track->journalRows.push_back(journalRow);
            track->pieceChunks.push_back(chunk);
            track->pieceObjects += records.size();
            if (chunk != 0)
                track->directChunks.push_back(chunk);
            entry.liveBytes += journaledBytes(*track->pieces.back(), chunk);
            ++entry.pieces;
            entry.tracks.push_back(track->stored.track.id);
            ++runs;
        }
        if (entry.pieces == 0) {
            m_journal.erase(journalRow);
            m_unreferencedJournalRows.push_back(journalRow);
        }
    }
    select.reset();
    m_db.resetCached();
    for (auto& [id, track] : m_open) {
        track->view = viewOf(*track);
        track->idleQueuedAt = now;
        m_idle.push_back({now, id});
        m_journalAges.push_back({now, id});
    }
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

std::uint32_t TrackWriter::keyOfDevice(const ZuUuid& device)
{
    const auto [it, added] = m_deviceKeys.try_emplace(device, 0);
    if (added)
        it->second = m_dictionary.key(Kind::device, UuidBytes(device));
    return it->second;
}

TrackWriter::OpenTrack* TrackWriter::openTrackFor(const ZuUuid& id, DBResult* result)
{
    if (auto it = m_open.find(id); it != m_open.end())
        return it->second.get();
    auto track = std::make_unique<OpenTrack>();
    bool found = false;
    if (m_storedIds.mayHold(static_cast<std::uint64_t>(TrackRow::idHalves(id).first))) {
        *result = findStored(id, 0, &track->stored, &found);
        if (*result != DBResult::ok)
            return nullptr;
    }
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
    if (!track.batchLists.empty() && holdsAttributes(track.batchListText, object.attributes)) {
        list = static_cast<std::uint32_t>(track.batchLists.size() - 1);
    } else {
        t.addAttributes(object.attributes);
        AttributeList codes;
        codes.reserve(object.attributes.size());
        for (const auto& a : object.attributes)
            codes.push_back(m_coder.encode(a));
        list = static_cast<std::uint32_t>(track.batchLists.size());
        track.batchLists.push_back(std::move(codes));
        track.batchListText.clear();
        appendAttributes(object.attributes, &track.batchListText);
    }

    ObjectRecord r;
    r.timestampUs = packet.timestampUs;
    r.durationUs = packet.durationUs;
    r.device = deviceKey;
    if (track.lastTypeKey == 0 || track.lastType != object.typeId) {
        track.lastType = object.typeId;
        track.lastTypeKey = m_dictionary.key(Kind::type, object.typeId);
    }
    if (track.lastEngineKey == 0 || track.lastEngine != object.analyticsEngineId) {
        track.lastEngine = object.analyticsEngineId;
        track.lastEngineKey = m_dictionary.key(Kind::engine, UuidBytes(object.analyticsEngineId));
    }
    r.type = track.lastTypeKey;
    r.engine = track.lastEngineKey;
    r.kind = static_cast<std::uint8_t>(object.objectMetadataType);
    r.stream = static_cast<std::uint8_t>(static_cast<int>(packet.streamIndex) + 1);
    r.box = object.boundingBox;
    r.attributes = list;
    track.batch.push_back(r);
}

DBResult TrackWriter::write(const std::vector<PacketPtr>& packets, SteadyClock::time_point deadline,
                            std::size_t* taken)
{
    if (taken)
        *taken = packets.size();
    // Reads of stored tracks happen inside the write transaction too: outside it, each would take
    // and drop the WAL read lock on its own.
    if (auto r = m_db.exec("BEGIN IMMEDIATE"); r != DBResult::ok)
        return r;
    if (m_activity)
        m_activity->discardStaged();
    std::vector<OpenTrack*>& touched = m_touched;
    touched.clear();
    DBResult result = DBResult::ok;
    const auto now = SteadyClock::now();
    for (std::size_t i = 0; i < packets.size(); ++i) {
        // A batch that takes longer than it was meant to ends early, so that what it took is
        // committed in time; the rest goes to the next one.
        if (taken && i > 0 && i % 256 == 0 && SteadyClock::now() > deadline) {
            *taken = i;
            break;
        }
        const auto& packet = packets[i];
        const std::uint32_t deviceKey = keyOfDevice(packet->deviceId);
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
            // Seen again before it was written: it had not ended after all.
            track->ended = false;
            addObject(*track, *packet, object, deviceKey);
        }
        if (result != DBResult::ok)
            break;
    }
    if (result == DBResult::ok) {
        std::vector<OpenTrack*> flushing;
        decide(touched, now, &flushing);
        // Ended tracks are safe in the journal: writing them may wait for a later batch, so
        // that they do not hold back the commit of the packets.
        result = commit(touched, std::move(flushing), false, deadline);
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

void TrackWriter::decide(const std::vector<OpenTrack*>& touched, SteadyClock::time_point now,
                         std::vector<OpenTrack*>* flushing)
{
    const auto take = [](OpenTrack* t, std::vector<OpenTrack*>* list) {
        if (!t || t->scheduled || t->ended)
            return;
        t->scheduled = true;
        list->push_back(t);
    };
    const auto end = [&](OpenTrack* t) {
        if (!t || t->ended)
            return;
        t->ended = true;
        t->endedAt = now;
        m_ended.push_back(t->stored.track.id);
    };
    const auto find = [this](const ZuUuid& id) -> OpenTrack* {
        const auto it = m_open.find(id);
        return it == m_open.end() ? nullptr : it->second.get();
    };

    // Each track is queued with the time it last reached, behind its device; the queues are
    // looked at from the front, so that a batch costs what it touches, not what is open.
    std::unordered_set<std::uint32_t> devices;
    for (OpenTrack* t : touched) {
        t->touched = now;
        m_ends[t->deviceKey].push_back({t->stored.track.lastUs, t->stored.track.id});
        if (now - t->idleQueuedAt >= std::chrono::seconds(1)) {
            t->idleQueuedAt = now;
            m_idle.push_back({now, t->stored.track.id});
        }
        devices.insert(t->deviceKey);
    }
    for (const std::uint32_t device : devices) {
        auto& queue = m_ends[device];
        const std::int64_t deviceTime = m_deviceTime[device];
        while (!queue.empty() && deviceTime > queue.front().lastUs &&
               span(queue.front().lastUs, deviceTime) >= kCloseGapUs) {
            OpenTrack* t = find(queue.front().id);
            if (t && t->stored.track.lastUs == queue.front().lastUs)
                end(t);
            queue.pop_front();
        }
    }
    // Tracks that nothing came for, and as many of the least recently seen as are too many; a
    // batch takes a bounded number of them, so that it takes a bounded time.
    std::size_t idleTaken = 0;
    const auto tooMany = [&] { return m_open.size() > kMaxOpenTracks + m_ended.size(); };
    while (!m_idle.empty() && idleTaken < kMaxIdleClosesPerBatch &&
           (now - m_idle.front().first >= kIdleClose || tooMany())) {
        const auto [queuedAt, id] = m_idle.front();
        m_idle.pop_front();
        OpenTrack* t = find(id);
        if (!t || t->ended)
            continue;
        if (now - t->touched >= kIdleClose || tooMany()) {
            end(t);
            ++idleTaken;
        } else if (t->idleQueuedAt == queuedAt) {
            // Seen since: queued again at its latest.
            t->idleQueuedAt = t->touched;
            m_idle.push_back({t->touched, id});
        }
    }
    for (OpenTrack* t : touched) {
        if (t->pieceObjects + t->batch.size() >= kFlushObjects)
            take(t, flushing);
    }
    if (m_openTrackBytes > m_maxOpenTrackBytes) {
        // The tracks that hold the most first, down to three quarters of the bound, so that
        // the next batches do not come back to it at once.
        std::vector<std::pair<std::size_t, OpenTrack*>> largest;
        for (const auto& [id, owned] : m_open) {
            if (owned->pieceBytes > 0 && !owned->scheduled && !owned->ended)
                largest.emplace_back(owned->pieceBytes, owned.get());
        }
        const std::size_t count = std::min(largest.size(), kMaxMemoryFlushesPerBatch);
        std::partial_sort(largest.begin(), largest.begin() + count, largest.end(),
                          [](const auto& a, const auto& b) { return a.first > b.first; });
        std::size_t bytes = m_openTrackBytes;
        for (std::size_t i = 0; i < count && bytes > m_maxOpenTrackBytes / 4 * 3; ++i) {
            take(largest[i].second, flushing);
            bytes -= largest[i].first;
        }
    }
    std::size_t agedTaken = 0;
    while (!m_journalAges.empty() && agedTaken < kMaxIdleClosesPerBatch &&
           now - m_journalAges.front().first >= kMaxJournalAge) {
        const auto [since, id] = m_journalAges.front();
        m_journalAges.pop_front();
        OpenTrack* t = find(id);
        if (t && !t->journalRows.empty() && t->journaledSince == since) {
            take(t, flushing);
            ++agedTaken;
        }
    }
    std::erase_if(*flushing, [](OpenTrack* t) { return !t->scheduled; });
}

DBResult TrackWriter::closeTracks(bool idleOnly, SteadyClock::time_point deadline)
{
    const auto now = SteadyClock::now();
    std::vector<OpenTrack*> flushing;
    if (idleOnly) {
        decide({}, now, &flushing);
    } else {
        for (auto& [id, owned] : m_open) {
            if (!owned->ended) {
                owned->ended = true;
                owned->endedAt = now;
                m_ended.push_back(id);
            }
        }
    }
    if (flushing.empty() && !endedDue(now, !idleOnly) && m_unreferencedJournalRows.empty())
        return DBResult::ok;
    if (auto r = m_db.exec("BEGIN IMMEDIATE"); r != DBResult::ok)
        return r;
    if (m_activity)
        m_activity->discardStaged();
    const DBResult result = commit({}, std::move(flushing), !idleOnly, deadline);
    if (result != DBResult::ok) {
        m_lastError = m_db.lastError();
        m_db.resetCached();
        m_db.exec("ROLLBACK");
        recover();
    }
    return result;
}

void TrackWriter::addPiece(OpenTrack& track, std::shared_ptr<const std::string> piece)
{
    const std::size_t bytes = piece->capacity() + kRunOverheadBytes;
    track.pieceBytes += bytes;
    m_openTrackBytes += bytes;
    track.pieces.push_back(std::move(piece));
}

void TrackWriter::releaseQueues()
{
    // Every entry names a track that is no longer open; those of a device that sends nothing
    // more would stay until it does.
    releaseRoom(m_ends);
    releaseRoom(m_idle);
    releaseRoom(m_journalAges);
    releaseRoom(m_ended);
    releaseRoom(m_open);
    releaseRoom(m_touched);
    releaseRoom(m_journaled);
    releaseRoom(m_toClose);
    releaseRoom(m_sections);
    releaseRoom(m_journalData);
    releaseRoom(m_journalPacked);
    releaseRoom(m_positions);
    releaseRoom(m_positionLists);
    releaseRoom(m_records);
    releaseRoom(m_recordLists);
}

std::int64_t TrackWriter::earliestOpenFirstUs() const
{
    std::int64_t earliest = std::numeric_limits<std::int64_t>::max();
    for (const auto& [id, track] : m_open) {
        if (track->stored.track.firstUs != kNoFirstUs)
            earliest = std::min(earliest, track->stored.track.firstUs);
    }
    return earliest;
}

bool TrackWriter::endedDue(SteadyClock::time_point now, bool all) const
{
    if (m_ended.empty())
        return false;
    if (all || m_ended.size() >= kMaxEndedTracks)
        return true;
    const auto first = m_open.find(m_ended.front());
    return first == m_open.end() || !first->second->ended ||
           now - first->second->endedAt >= kEndedDelay;
}

DBResult TrackWriter::commit(const std::vector<OpenTrack*>& touched,
                             std::vector<OpenTrack*> toWrite, bool allEnded,
                             SteadyClock::time_point deadline)
{
    const std::int64_t seq = m_seq + 1;
    std::vector<OpenTrack*>& journaled = m_journaled;
    journaled.clear();
    // The runs of the batch that go to the journal are encoded on the encoder thread while this
    // one writes tracks, then by both; any return waits for it, as the tracks may go then.
    std::vector<OpenTrack*>& toEncode = m_toEncode;
    toEncode.clear();
    for (OpenTrack* t : touched) {
        if (!t->scheduled && !t->batch.empty()) {
            t->encodedRun = static_cast<std::int32_t>(toEncode.size());
            toEncode.push_back(t);
        }
    }
    m_encodedRuns.resize(toEncode.size());
    std::atomic<std::size_t> nextRun{0};
    const auto encodeRuns = [this, &toEncode, &nextRun] {
        for (std::size_t i;
             (i = nextRun.fetch_add(1, std::memory_order_relaxed)) < toEncode.size();)
            m_encodedRuns[i] = ObjectRun::encode(toEncode[i]->batch, toEncode[i]->batchLists, 0);
    };
    struct Drain
    {
        TaskThread* thread;
        ~Drain()
        {
            if (thread)
                thread->drain();
        }
    } drain{nullptr};
    if (toEncode.size() >= kParallelRuns) {
        m_encoder.post(encodeRuns);
        drain.thread = &m_encoder;
    }
    for (OpenTrack* t : toWrite) {
        if (auto r = writeTrack(*t, false); r != DBResult::ok)
            return r;
    }
    // Ended tracks are written together, a while after they ended: the index pages that every
    // commit of tracks touches are then written once for many tracks, not once per batch. Those
    // that the deadline leaves stay ended, first in line for the next commit.
    std::vector<OpenTrack*>& toClose = m_toClose;
    toClose.clear();
    std::size_t closed = 0;
    if (endedDue(SteadyClock::now(), allEnded)) {
        for (; closed < m_ended.size(); ++closed) {
            if (closed >= kMinClosesPerCommit && closed % 64 == 0 &&
                SteadyClock::now() > deadline) {
                break;
            }
            const auto it = m_open.find(m_ended[closed]);
            if (it == m_open.end() || !it->second->ended || it->second->scheduled)
                continue;
            it->second->scheduled = true;
            toClose.push_back(it->second.get());
            if (auto r = writeTrack(*it->second, true); r != DBResult::ok)
                return r;
        }
    }

    // The runs of this batch's tracks that go on, one journal row for the batch. Runs that are
    // all that is left of a row of mostly ended tracks move along, so that the row goes: the
    // journal stays a few times the size of what the open tracks hold.
    auto& sections = m_sections;  //< Track, its piece; -1: batch.
    sections.clear();
    constexpr std::size_t kBatchPiece = static_cast<std::size_t>(-1);
    for (OpenTrack* t : touched) {
        if (!t->scheduled && !t->batch.empty())
            sections.emplace_back(t, kBatchPiece);
    }
    for (auto it = m_journal.begin(); it != m_journal.end();) {
        const JournalRow& row = it->second;
        if (row.bytes < kJournalCompactionBytes || row.liveBytes * 4 > row.bytes) {
            ++it;
            continue;
        }
        for (const ZuUuid& id : row.tracks) {
            const auto track = m_open.find(id);
            if (track == m_open.end())
                continue;
            const auto& rowsOfTrack = track->second->journalRows;
            for (std::size_t i = 0; i < rowsOfTrack.size(); ++i) {
                if (rowsOfTrack[i] == it->first)
                    sections.emplace_back(track->second.get(), i);
            }
        }
        ++it;
    }
    std::sort(sections.begin(), sections.end(), [](const auto& a, const auto& b) {
        return std::pair(a.first->stored.rowId, a.second) <
               std::pair(b.first->stored.rowId, b.second);
    });
    sections.erase(std::unique(sections.begin(), sections.end()), sections.end());
    encodeRuns();
    if (drain.thread) {
        drain.thread->drain();
        drain.thread = nullptr;
    }
    const auto now = SteadyClock::now();
    if (!sections.empty()) {
        std::string& data = m_journalData;
        data.clear();
        ByteWriter w(&data);
        w.putVarint(sections.size());
        std::int64_t previousRowId = 0;
        JournalRow entry;
        for (const auto& [t, index] : sections) {
            // A track without a row has its id in its first run, and in every run that moves.
            const bool intro = !t->hasRow && (index != kBatchPiece || t->journalRows.empty());
            std::shared_ptr<const std::string> piece;
            std::int64_t chunk = 0;
            if (index == kBatchPiece) {
                piece = std::make_shared<const std::string>(
                    t->encodedRun >= 0 ? std::move(m_encodedRuns[t->encodedRun])
                                       : ObjectRun::encode(t->batch, t->batchLists, 0));
                // A run this large is a chunk of its own, written where it stays; the journal
                // only names it. A track keeps a few chunks free for when it is written.
                if (t->batch.size() >= kDirectChunkObjects &&
                    t->stored.chunks.size() + t->directChunks.size() + 2 < kMaxPositionChunks) {
                    auto* s = m_db.cached("INSERT INTO position(id, data) VALUES(?, ?)");
                    if (!s)
                        return m_db.lastResult();
                    s->bind(1, m_nextChunkId);
                    s->bindBlobInPlace(2, *piece);
                    if (auto r = s->exec(); r != DBResult::ok)
                        return r;
                    chunk = m_nextChunkId++;
                    t->directChunks.push_back(chunk);
                }
                if (t->journalRows.empty()) {
                    t->journaledSince = now;
                    m_journalAges.push_back({now, t->stored.track.id});
                }
                addPiece(*t, piece);
                t->journalRows.push_back(seq);
                t->pieceChunks.push_back(chunk);
                t->pieceObjects += t->batch.size();
            } else {
                // Moved from its old row, which loses it.
                piece = t->pieces[index];
                chunk = t->pieceChunks[index];
                JournalRow& old = m_journal[t->journalRows[index]];
                old.liveBytes -= journaledBytes(*piece, chunk);
                if (--old.pieces == 0) {
                    m_journal.erase(t->journalRows[index]);
                    m_unreferencedJournalRows.push_back(t->journalRows[index]);
                }
                t->journalRows[index] = seq;
            }
            w.putVarint((static_cast<std::uint64_t>(t->stored.rowId - previousRowId) << 2) |
                        (chunk != 0 ? kSectionChunk : 0) | (intro ? kSectionIntro : 0));
            previousRowId = t->stored.rowId;
            if (intro) {
                const auto [key, low] = TrackRow::idHalves(t->stored.track.id);
                w.putFixed(key);
                w.putFixed(low);
            }
            if (chunk != 0)
                w.putVarint(static_cast<std::uint64_t>(chunk));
            else
                w.putBytes(*piece);
            entry.liveBytes += journaledBytes(*piece, chunk);
            ++entry.pieces;
            entry.tracks.push_back(t->stored.track.id);
            journaled.push_back(t);
        }
        entry.bytes = data.size();
        m_journal[seq] = std::move(entry);
        // Compressed on the encoder thread while this one prepares the rest of the commit.
        m_journalPackedOk = false;
        m_encoder.post(
            [this] { m_journalPackedOk = packJournal(m_journalData, &m_journalPacked); });
        drain.thread = &m_encoder;
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
    if (drain.thread) {
        drain.thread->drain();
        drain.thread = nullptr;
        if (!m_journalPackedOk)
            return m_db.fail(1 /*SQLITE_ERROR*/, "compressing a journal row");
        auto* s = m_db.cached("INSERT INTO journal(id, data) VALUES(?, ?)");
        if (!s)
            return m_db.lastResult();
        s->bind(1, seq);
        s->bindBlobInPlace(2, m_journalPacked);
        if (auto r = s->exec(); r != DBResult::ok)
            return r;
    }
    m_snapshots->publish(published);
    m_db.resetCached();
    if (auto r = m_db.exec("COMMIT"); r != DBResult::ok) {
        m_snapshots->withdraw(seq);
        return r;
    }
    m_published = std::move(published);
    if (m_activity)
        m_activity->publish(seq);
    m_dictionary.keepSaved();
    for (const auto& [key, value] : meta)
        m_storedMeta[key] = value;
    m_seq = seq;
    m_unreferencedJournalRows.clear();
    m_ended.erase(m_ended.begin(), m_ended.begin() + static_cast<std::ptrdiff_t>(closed));
    for (OpenTrack* t : touched) {
        t->inBatch = false;
        t->encodedRun = -1;
        // Kept for the next batch, the room would stay with every open track for as long as
        // it is open: under a backlog 3 KB a track, a sixth of the heap.
        releaseRoom(t->batch);
        releaseRoom(t->batchLists);
        releaseRoom(t->batchListText);
    }
    for (OpenTrack* t : toWrite)
        t->scheduled = false;
    for (OpenTrack* t : toClose) {
        const ZuUuid id = t->stored.track.id;  //< The key must outlive the track it is in.
        m_open.erase(id);
    }
    if (m_open.empty())
        releaseQueues();
    m_checkpointer.restartIfLong(m_db);
    return DBResult::ok;
}

DBResult TrackWriter::writeTrack(OpenTrack& track, bool closing)
{
    StoredTrack& stored = track.stored;
    TrackAggregate& t = stored.track;

    // Every position since the track was last written, with their attribute lists merged.
    std::vector<ObjectRecord>& positions = m_positions;
    std::vector<AttributeList>& lists = m_positionLists;
    positions.clear();
    lists.clear();
    {
        std::vector<ObjectRecord>& records = m_records;
        std::vector<AttributeList>& recordLists = m_recordLists;
        for (std::size_t i = 0; i < track.pieces.size(); ++i) {
            if (track.pieceChunks[i] != 0)
                continue;
            records.clear();
            // Runs were checked when they were made or read back from the journal.
            if (!ObjectRun::decode(*track.pieces[i], 0, &records, &recordLists))
                return m_db.fail(1 /*SQLITE_ERROR*/, "decoding an open track's run");
            collectPositions(records, recordLists, &positions, &lists);
        }
    }
    collectPositions(track.batch, track.batchLists, &positions, &lists);
    const auto collect = [&](const std::vector<ObjectRecord>& records,
                             const std::vector<AttributeList>& recordLists) {
        collectPositions(records, recordLists, &positions, &lists);
    };
    std::stable_sort(positions.begin(), positions.end(),
                     [](const auto& a, const auto& b) { return a.timestampUs < b.timestampUs; });

    // The runs written as chunks of their own come first: they are older than the chunk below.
    stored.chunks.insert(stored.chunks.end(), track.directChunks.begin(), track.directChunks.end());
    track.directChunks.clear();
    if (!positions.empty()) {
        if (stored.chunks.size() < kMaxPositionChunks) {
            auto* s = m_db.cached("INSERT INTO position(id, data) VALUES(?, ?)");
            if (!s)
                return m_db.lastResult();
            const std::string chunk = ObjectRun::encode(positions, lists, 0);
            s->bind(1, m_nextChunkId);
            s->bindBlobInPlace(2, chunk);
            if (auto r = s->exec(); r != DBResult::ok)
                return r;
            stored.chunks.push_back(m_nextChunkId++);
        } else {
            // As many chunks as a track may have: the last one takes the new positions.
            const std::int64_t chunk = stored.chunks.back();
            auto* read = m_db.cached("SELECT data FROM position WHERE id = ?");
            if (!read)
                return m_db.lastResult();
            read->bind(1, chunk);
            std::vector<ObjectRecord> old;
            std::vector<AttributeList> oldLists;
            if (read->step())
                ObjectRun::decode(read->blob(0), 0, &old, &oldLists);
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
            s->bindBlob(1, ObjectRun::encode(positions, lists, 0));
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
    TrackRow::Encoded encoded;
    TrackRow::bind(*row, stored, m_coder, m_dictionary, &encoded);
    if (auto r = row->exec(); r != DBResult::ok)
        return r;
    // Before the commit: a key whose row a rollback takes away only costs a probe.
    if (!track.hasRow)
        m_storedIds.add(static_cast<std::uint64_t>(TrackRow::idHalves(t.id).first));
    if (m_activity) {
        const std::int64_t type = m_dictionary.key(Kind::type, t.typeId);
        if (type > ActivityIndex::kMaxTypeKey)
            m_activity->disable();
        m_activity->stage(
            stored.rowId,
            ActivityIndex::entryOf(m_dictionary.key(Kind::device, UuidBytes(t.deviceId)), type,
                                   t.firstUs, span(t.firstUs, t.lastUs), t.bestShotKind));
    }

    const bool wordsChanged = !track.hasRow || track.storedAttributes != t.attributes;
    if (track.hasRow && wordsChanged) {
        auto* s =
            m_db.cached("INSERT INTO track_text(track_text, rowid, text) VALUES('delete', ?, ?)");
        if (!s)
            return m_db.lastResult();
        const std::string text = attributesSearchText(track.storedAttributes);
        s->bind(1, stored.rowId);
        s->bindTextInPlace(2, text);
        if (auto r = s->exec(); r != DBResult::ok)
            return r;
    }
    if (wordsChanged) {
        auto* s = m_db.cached("INSERT INTO track_text(rowid, text) VALUES(?, ?)");
        if (!s)
            return m_db.lastResult();
        const std::string text = attributesSearchText(t.attributes);
        s->bind(1, stored.rowId);
        s->bindTextInPlace(2, text);
        if (auto r = s->exec(); r != DBResult::ok)
            return r;
    }
    if (!track.hasRow) {
        for (const auto& a : t.attributes)
            m_coder.noteStored(a);
    }

    m_maxSpanUs = std::max(m_maxSpanUs, span(t.firstUs, t.lastUs));
    m_maxLagUs = std::max(m_maxLagUs, lagOf(track.precedingFirstUs, t.firstUs));

    for (std::size_t i = 0; i < track.journalRows.size(); ++i) {
        const auto it = m_journal.find(track.journalRows[i]);
        if (it == m_journal.end())
            continue;
        it->second.liveBytes -= journaledBytes(*track.pieces[i], track.pieceChunks[i]);
        if (--it->second.pieces > 0)
            continue;
        m_unreferencedJournalRows.push_back(it->first);
        m_journal.erase(it);
    }
    track.pieces.clear();
    track.journalRows.clear();
    track.pieceChunks.clear();
    track.pieceObjects = 0;
    m_openTrackBytes -= track.pieceBytes;
    track.pieceBytes = 0;
    if (closing) {
        track.closing = true;  //< Removed once the commit is done.
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
    const StoredTrack& from = track.stored;
    view->stored.rowId = from.rowId;
    view->stored.chunks = from.chunks;
    view->stored.sealed = from.sealed;
    // All but the attributes, which the views of a track share while they stay.
    const TrackAggregate& t = from.track;
    TrackAggregate& v = view->stored.track;
    v.id = t.id;
    v.deviceId = t.deviceId;
    v.typeId = t.typeId;
    v.engineId = t.engineId;
    v.originUs = t.originUs;
    v.firstUs = t.firstUs;
    v.lastUs = t.lastUs;
    v.grid = t.grid;
    v.bestShot = t.bestShot;
    v.bestShotKind = t.bestShotKind;
    if (track.view && track.view->attributes->attributes.size() == t.attributes.size() &&
        track.view->attributes->attributes == t.attributes) {
        view->attributes = track.view->attributes;
    } else {
        view->attributes = std::make_shared<const OpenTrackView::Attributes>(
            OpenTrackView::Attributes{t.attributes, wordsOf(t.attributes)});
    }
    view->hasRow = track.hasRow;
    view->pieces = track.pieces;
    return view;
}

std::shared_ptr<const OpenTracks> TrackWriter::snapshot(std::int64_t seq)
{
    auto tracks = std::make_shared<OpenTracks>();
    tracks->seq = seq;
    tracks->tracks.reserve(m_open.size());
    tracks->byId.reserve(m_open.size());
    // The lists of the devices by the writer's own hash: the map's hashed the id's text each time.
    boost::unordered_flat_map<ZuUuid, std::vector<std::size_t>*, UuidHash> deviceLists;
    for (const auto& [id, owned] : m_open) {
        if (!owned->view || owned->closing)
            continue;
        const std::size_t index = tracks->tracks.size();
        tracks->tracks.push_back(owned->view);
        tracks->byId.emplace(id, index);
        const ZuUuid& device = owned->view->stored.track.deviceId;
        auto [list, added] = deviceLists.try_emplace(device, nullptr);
        if (added)
            list->second = &tracks->byDevice[device];
        list->second->push_back(index);
        if (owned->view->hasRow)
            tracks->replacedRows.push_back(owned->view->stored.rowId);
    }
    return tracks;
}

DBResult TrackWriter::deleteExpired(std::int64_t cutoffUs, int maxRows, int* deleted)
{
    *deleted = 0;
    sql::Transaction transaction(m_db);
    if (transaction.beginResult() != DBResult::ok)
        return transaction.beginResult();
    if (m_activity)
        m_activity->discardStaged();

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
        auto* text =
            m_db.cached("INSERT INTO track_text(track_text, rowid, text) VALUES('delete', ?, ?)");
        if (!row || !text)
            return m_db.lastResult();
        row->bind(1, stored.rowId);
        text->bind(1, stored.rowId);
        text->bindText(2, attributesSearchText(stored.track.attributes));
        for (auto* s : {row, text}) {
            if (auto r = s->exec(); r != DBResult::ok)
                return r;
        }
        for (const std::int64_t chunk : stored.chunks) {
            auto* s = m_db.cached("DELETE FROM position WHERE id = ?");
            if (!s)
                return m_db.lastResult();
            s->bind(1, chunk);
            if (auto r = s->exec(); r != DBResult::ok)
                return r;
        }
        if (m_activity)
            m_activity->stageRemoval(stored.rowId);
    }
    // Deletions carry no commit number: the count of them tells counts which state they read.
    const std::int64_t retentions = m_storedMeta[ActivityIndex::kRetentionsKey] + 1;
    if (!rows.empty()) {
        if (auto r = storeMeta(ActivityIndex::kRetentionsKey, retentions); r != DBResult::ok)
            return r;
    }
    m_db.resetCached();
    if (auto r = transaction.commit(); r != DBResult::ok)
        return r;
    if (!rows.empty()) {
        m_storedMeta[ActivityIndex::kRetentionsKey] = retentions;
        if (m_activity)
            m_activity->publish({m_seq, retentions});
    }
    *deleted = static_cast<int>(rows.size());
    return DBResult::ok;
}

}  // namespace kest::analytics::db
