#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <boost/unordered/unordered_flat_map.hpp>

#include <kest/sql/database.h>

#include "activity_index.h"
#include "attribute_coder.h"
#include "checkpointer.h"
#include "object_metadata_packet.h"
#include "object_run.h"
#include "open_tracks_snapshots.h"
#include "store_dictionary.h"
#include "stored_id_filter.h"
#include "task_thread.h"
#include "text_matcher.h"
#include "track_row.h"
#include "uuid_hash.h"

namespace kest::analytics::db {

using PacketPtr = std::shared_ptr<const common::metadata::ObjectMetadataPacket>;

/**
 * The writing side of the events database, used by one thread (which a thread of its own helps
 * to encode each commit's runs, within the commit). Each track is written once: while
 * objects keep coming its aggregate stays in memory, and each batch adds its objects to the
 * journal table as one compact run per track; when the track ends (its device's time is
 * kCloseGap past it, or nothing came for kIdleClose) its row, its one chunk of positions and its
 * words are written, and its journal runs are dropped. A batch is one transaction, so a crash
 * keeps every committed batch: on open, the journal's runs rebuild the open tracks. Searches see
 * the open tracks through the snapshots the writer publishes for each commit.
 *
 * A track that goes on for long is written before it ends (every kFlushObjects objects, after
 * kMaxJournalAge, or while the open tracks' runs take more memory than set), and again when it
 * ends: its row is then rewritten, its positions go to a further chunk. So is a track that gets
 * objects after it was written (a late packet).
 */
class TrackWriter
{
public:
    using SteadyClock = std::chrono::steady_clock;

    /** How far a device's time goes past a track's last appearance before the track ends. */
    static constexpr std::int64_t kCloseGapUs = 2'000'000;
    /** How long a track with no new objects stays open, whatever its device does. */
    static constexpr std::chrono::seconds kIdleClose{10};
    /** Objects of an open track before they are written as a chunk. */
    static constexpr std::size_t kFlushObjects = 4096;
    /**
     * A batch's run of a track with this many objects is written as a position chunk at once,
     * not to the journal first: a backlog makes such runs, and they are then written once.
     */
    static constexpr std::size_t kDirectChunkObjects = 16;
    /** How long an open track's objects stay in the journal before they are written as a chunk. */
    static constexpr std::chrono::seconds kMaxJournalAge{60};
    /** Tracks that a batch writes because the open tracks' runs take too much memory, at most. */
    static constexpr std::size_t kMaxMemoryFlushesPerBatch = 1024;
    /** What a run costs in memory besides its bytes: its string, shared pointer and blocks. */
    static constexpr std::size_t kRunOverheadBytes = 96;
    /** Open tracks at most; past it the least recently seen ones are written. */
    static constexpr std::size_t kMaxOpenTracks = 200'000;
    /** Runs of a commit from which the encoder thread encodes them with the writer. */
    static constexpr std::size_t kParallelRuns = 64;
    /** Tracks that a batch writes for their age (not for their device's time) at most. */
    static constexpr std::size_t kMaxIdleClosesPerBatch = 2048;
    /**
     * Ended tracks wait, in the journal still, until this many have ended or the first of them
     * ended this long ago; then they are written together.
     */
    static constexpr std::size_t kMaxEndedTracks = 16384;
    static constexpr std::chrono::milliseconds kEndedDelay{1000};
    /** Ended tracks a commit writes whatever its deadline, so that they always get written. */
    static constexpr std::size_t kMinClosesPerCommit = 256;

    TrackWriter(std::shared_ptr<OpenTracksSnapshots> snapshots);
    ~TrackWriter();

    /**
     * The memory that the open tracks' runs may take (estimated); past it, the tracks that hold
     * the most are written as they go, until they take three quarters of it.
     */
    void setMaxOpenTrackBytes(std::size_t bytes) { m_maxOpenTrackBytes = bytes; }
    /** What the open tracks' runs take now (estimated, as for setMaxOpenTrackBytes()). */
    std::size_t openTrackBytes() const { return m_openTrackBytes; }

    /** Rows written and deleted from now on are published to `index` as they are committed. */
    void setActivityIndex(std::shared_ptr<ActivityIndex> index) { m_activity = std::move(index); }

    /** Opens the file, upgrades or creates the schema and rebuilds the open tracks. */
    sql::DBResult open(const std::string& file, const sql::ConnectionOptions& options);

    /**
     * All of the batch or nothing of it is stored. After a failure the open tracks are rebuilt
     * from the store as it was before the batch. Packets are taken until `deadline`: `taken`
     * gets how many were (the others are for a later batch); all of them without `taken`.
     */
    sql::DBResult write(const std::vector<PacketPtr>& packets,
                        SteadyClock::time_point deadline = SteadyClock::time_point::max(),
                        std::size_t* taken = nullptr);

    /**
     * Writes every open track (a stop, or a test that wants rows); `idleOnly`: only those that
     * have had no objects for kIdleClose, and of the ended ones what `deadline` leaves time for.
     */
    sql::DBResult closeTracks(bool idleOnly,
                              SteadyClock::time_point deadline = SteadyClock::time_point::max());

    /** Deletes at most `maxRows` tracks last seen before `cutoffUs`; `deleted` gets how many. */
    sql::DBResult deleteExpired(std::int64_t cutoffUs, int maxRows, int* deleted);

    /** The longest track (last minus first appearance) stored, which bounds search scans. */
    std::int64_t maxSpanUs() const { return m_maxSpanUs; }
    std::size_t openTracks() const { return m_open.size(); }
    /** Tracks that ended and are not written yet (about: some may have gone on since). */
    std::size_t endedTracks() const { return m_ended.size(); }
    /** The earliest first appearance of the open tracks; the maximum when none is open. */
    std::int64_t earliestOpenFirstUs() const;
    std::int64_t seq() const { return m_seq; }

    sql::Database& database() { return m_db; }
    /** What made the last failed write fail. */
    const std::string& lastError() const { return m_lastError; }

private:
    struct OpenTrack;
    struct Batch;

    sql::DBResult recover();
    sql::DBResult loadMeta();
    sql::DBResult findStored(const ZuUuid& id, std::int64_t rowId, StoredTrack* out, bool* found);
    OpenTrack* openTrackFor(const ZuUuid& id, sql::DBResult* result);
    /** The dictionary key of a device, added when new. */
    std::uint32_t keyOfDevice(const ZuUuid& device);
    void addObject(OpenTrack& track, const common::metadata::ObjectMetadataPacket& packet,
                   const common::metadata::ObjectMetadata& object, std::uint32_t deviceKey);
    /** Marks the tracks that end (m_ended), and chooses those written before they end. */
    void decide(const std::vector<OpenTrack*>& touched, SteadyClock::time_point now,
                std::vector<OpenTrack*>* flushing);
    /** Whether the ended tracks are to be written now; `all`: whatever their number and age. */
    bool endedDue(SteadyClock::time_point now, bool all) const;
    /** Ended tracks are written until `deadline` (kMinClosesPerCommit of them at least). */
    sql::DBResult commit(const std::vector<OpenTrack*>& touched, std::vector<OpenTrack*> toWrite,
                         bool allEnded, SteadyClock::time_point deadline);
    sql::DBResult writeTrack(OpenTrack& track, bool closing);
    /** Fills m_storedIds from the id index. */
    sql::DBResult loadStoredIds();
    sql::DBResult storeMeta(const char* key, std::int64_t value);
    /** Once no track is open: what the queues of decide() hold, and their room, go. */
    void releaseQueues();
    void noteFirst(OpenTrack& track);
    void addPiece(OpenTrack& track, std::shared_ptr<const std::string> piece);
    std::shared_ptr<const OpenTrackView> viewOf(const OpenTrack& track);
    std::shared_ptr<const OpenTracks> snapshot(std::int64_t seq);
    std::vector<std::string> wordsOf(const std::vector<common::metadata::Attribute>& attributes);

    sql::Database m_db;
    Checkpointer m_checkpointer;
    std::shared_ptr<OpenTracksSnapshots> m_snapshots;
    std::shared_ptr<ActivityIndex> m_activity;
    StoreDictionary m_dictionary;
    AttributeCoder m_coder{m_dictionary};
    TextMatcher m_tokenizer;
    /** The id keys of the track rows: a track seen for the first time is looked up if there. */
    StoredIdFilter m_storedIds;

    /** Flat: a batch looks up every object's track, and a chained map's nodes missed the cache. */
    boost::unordered_flat_map<ZuUuid, std::unique_ptr<OpenTrack>, UuidHash> m_open;
    /** What a journal row holds, by its id: it goes when no run of an open track is left. */
    struct JournalRow
    {
        std::size_t bytes = 0;
        /** Of its runs, those of open tracks. */
        std::size_t liveBytes = 0;
        std::size_t pieces = 0;
        /** The tracks it had runs of; some may have ended. */
        std::vector<ZuUuid> tracks;
    };
    /** Rows of this size at least whose runs have mostly ended are compacted. */
    static constexpr std::size_t kJournalCompactionBytes = 16 * 1024;
    /** Flags of a journal row's section: the track's id follows; its run is in a position row. */
    static constexpr std::uint64_t kSectionIntro = 1;
    static constexpr std::uint64_t kSectionChunk = 2;
    std::map<std::int64_t, JournalRow> m_journal;
    std::vector<std::int64_t> m_unreferencedJournalRows;
    /** The dictionary keys of the devices met, without hashing their text each time. */
    boost::unordered_flat_map<ZuUuid, std::uint32_t, UuidHash> m_deviceKeys;
    /** The latest packet time of each device, by dictionary key. */
    std::unordered_map<std::uint32_t, std::int64_t> m_deviceTime;
    /**
     * Open tracks in the order they may end: by device and the last appearance they had when
     * queued, by when they were last seen, and by when their oldest journal run was written.
     * Entries of tracks that changed since are stale and skipped.
     */
    struct Due
    {
        std::int64_t lastUs = 0;
        ZuUuid id;
    };
    std::unordered_map<std::uint32_t, std::deque<Due>> m_ends;
    std::deque<std::pair<SteadyClock::time_point, ZuUuid>> m_idle;
    std::deque<std::pair<SteadyClock::time_point, ZuUuid>> m_journalAges;
    /** Tracks that ended and wait to be written, in the order they ended; some went on since. */
    std::vector<ZuUuid> m_ended;

    /** The meta values as the store holds them, to write only those that change. */
    std::map<std::string, std::int64_t, std::less<>> m_storedMeta;
    std::size_t m_maxOpenTrackBytes = std::numeric_limits<std::size_t>::max();
    std::size_t m_openTrackBytes = 0;
    std::int64_t m_seq = 0;
    std::int64_t m_nextRowId = 1;
    std::int64_t m_nextChunkId = 1;
    std::int64_t m_maxSpanUs = 0;
    /** See kMaxFirstKey and kMaxLagKey of storage_schema.h. */
    std::int64_t m_maxFirstUs = 0;
    std::int64_t m_maxLagUs = 0;
    std::shared_ptr<const OpenTracks> m_published;
    /**
     * What each batch needs anew, kept with their room: freeing blocks this large made the
     * allocator sort all the small blocks freed since, a tenth of the writer's time.
     */
    std::vector<OpenTrack*> m_touched;
    std::vector<OpenTrack*> m_toEncode;
    std::vector<std::string> m_encodedRuns;
    std::vector<OpenTrack*> m_journaled;
    std::vector<OpenTrack*> m_toClose;
    std::vector<std::pair<OpenTrack*, std::size_t>> m_sections;
    std::string m_journalData;
    std::string m_journalPacked;
    bool m_journalPackedOk = false;
    /** writeTrack()'s: a track's positions, and the runs they are decoded from. */
    std::vector<ObjectRecord> m_positions;
    std::vector<AttributeList> m_positionLists;
    std::vector<ObjectRecord> m_records;
    std::vector<AttributeList> m_recordLists;
    std::string m_lastError;
    /** Encodes the journal's runs with the writer (see commit()); idle between commits. */
    TaskThread m_encoder;
};

}  // namespace kest::analytics::db
