#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <kest/sql/database.h>
#include <kest/utils/mutex.h>

#include "abstract_events_storage.h"
#include "activity_counter.h"
#include "activity_index.h"
#include "open_tracks_snapshots.h"
#include "periods_notifier.h"
#include "task_thread.h"
#include "track_reader.h"
#include "track_writer.h"

namespace kest::analytics::db {

/**
 * The analytics events storage on an embedded SQLite database ("events.sqlite" in the
 * settings' directory). `save` queues; one writer thread turns the queue into tracks and commits
 * it in batches (TrackWriter: each track written once, when it ends); a few lookup workers search
 * on their own connections, the writer's open tracks included. How a filter is applied is
 * described in track_reader.h, how tracks are aggregated in track_aggregate.h. The workers also
 * count activity (ActivityCounter), from what the writer's commits publish of the written tracks
 * in memory (ActivityIndex, read at start) and from the open tracks.
 *
 * A batch that cannot be committed is rolled back and its packets are reported, per device as
 * the union of their periods, through the save-error handler on a thread of its own; a committed
 * batch is reported the same way through the commit handler, on another thread.
 *
 * What is acknowledged and not committed stays within bounds: past maxQueuedPackets or
 * maxQueuedBytes of packets not yet written the storage is not ready until the queue is below
 * half of both; and it is not ready while the oldest of those packets is older than
 * maxCommitDelay plus kMaxBacklogLag less kAckMargin, or while the queue would take more than
 * half of that to write at the writer's measured pace. A batch takes what the writer writes in
 * kBatchTime at that pace, and stops taking packets once it has spent half of it, so that the
 * packets taken are committed soon enough. Before a successful initialize,
 * lookups complete at once (on the caller's thread) with an error and saves are reported as
 * failed (connectionError).
 */
class EventsStorage : public AbstractEventsStorage
{
public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;

    static constexpr const char* kFileName = "events.sqlite";
    /**
     * A batch is committed once this many packets are waiting, or after maxCommitDelay: the
     * writer then writes them while the next ones come, and takes what came meanwhile.
     */
    static constexpr std::size_t kEagerBatchPackets = 4096;
    static constexpr std::size_t kMaxBatchPackets = 16384;
    /** What a batch may take to write, at the writer's pace. */
    static constexpr std::chrono::milliseconds kBatchTime{300};
    /**
     * How often, at most, the heap's free pages go back to the system while packets are written:
     * the allocator keeps what the freed packets and written tracks took, in the arenas of the
     * threads that had them, and under a steady backlog that was a third of the process.
     */
    static constexpr std::chrono::seconds kHeapTrimInterval{1};
    static constexpr int kLookupWorkers = 2;
    /** How far past maxCommitDelay an acknowledged packet may wait for its commit. */
    static constexpr std::chrono::milliseconds kMaxBacklogLag{1000};
    /** Saves are refused this long before that bound is reached, for the batch in hand. */
    static constexpr std::chrono::milliseconds kAckMargin{300};
    /** Old tracks are deleted this many per transaction, between batches. */
    static constexpr int kRetentionBatchRows = 300;
    /**
     * Ended tracks wait in the journal until a batch has time to write them; past this many
     * waiting, the storage is not ready until they are written.
     */
    static constexpr std::size_t kMaxEndedBacklog = 4 * TrackWriter::kMaxEndedTracks;

    /** `clock` (wall time, for retention) defaults to the system clock. */
    explicit EventsStorage(Clock clock = nullptr);
    /** Commits everything queued, then stops the threads. */
    ~EventsStorage() override;

    bool initialize(const Settings& settings) override;
    void setOnSaveErrorHandler(SaveErrorHandler handler) override;
    bool isReady() const override;
    void save(std::shared_ptr<const common::metadata::ObjectMetadataPacket> packet) override;
    bool acknowledgesAfterCommit() const override;
    void saveCommitted(
        std::vector<std::shared_ptr<const common::metadata::ObjectMetadataPacket>> packets,
        CommittedHandler handler) override;
    void lookup(Filter filter, LookupHandler completionHandler) override;
    void countActivity(ActivityQuery query, ActivityHandler completionHandler) override;
    void setOnCommitHandler(CommitHandler handler) override;
    void setOnRetentionHandler(RetentionHandler handler) override;
    void flush() override;
    /** The store's size and free space are measured by the writer, at most once a second. */
    StorageStatistics statistics() const override;

    /**
     * Runs `task` on the writer thread with its connection before the next batch (tests);
     * only once initialized.
     */
    void runOnWriter(utils::MoveOnlyFunc<void(sql::Database&)> task);
    /**
     * Writes every track the writer still has open, as if it had ended, and waits (benchmarks
     * and tests that look at the stored rows).
     */
    void closeOpenTracks();

    std::size_t queuedPackets() const;

    /**
     * Whether a search is a key lookup that takes microseconds: a track id, without words (whose
     * counts in the full-text index may take milliseconds) and without positions (a long track
     * has many). Such a search is answered on the caller's thread when the reader kept for it is
     * free: the two thread switches of a worker would cost more than the search.
     */
    static bool answersInPlace(const Filter& filter);

    /** What a queued packet costs in memory, about: its objects, strings and allocations. */
    static std::size_t packetBytes(const common::metadata::ObjectMetadataPacket& packet);

private:
    using SteadyClock = std::chrono::steady_clock;
    /** What a lookup thread runs searches and counts with, on its own connection. */
    struct LookupWorker
    {
        std::unique_ptr<TrackReader> reader;
        std::unique_ptr<ActivityCounter> counter;
    };
    /** A search or a count, run by a lookup worker. */
    using LookupTask = utils::MoveOnlyFunc<void(LookupWorker&)>;
    struct Waiter
    {
        std::uint64_t first = 0;
        std::uint64_t last = 0;
        bool failed = false;
        CommittedHandler handler;
    };

    void enqueue(std::shared_ptr<const common::metadata::ObjectMetadataPacket> packet,
                 SteadyClock::time_point now);
    void writerLoop();
    void lookupLoop(int worker);
    void queueLookup(LookupTask task);
    /** A search by `reader`, logged when it fails; no tracks then. */
    ResultCode lookupWith(TrackReader& reader, const Filter& filter,
                          std::vector<ObjectTrackEx>* tracks);
    /** Writes what it can of `batch` by `deadline`; `taken`: how many packets it took. */
    bool writeBatch(const std::vector<PacketPtr>& batch, SteadyClock::time_point deadline,
                    std::size_t* taken);
    void applyRetention();
    void stop();
    void reportFailure(sql::DBResult result, const std::vector<PacketPtr>& packets);
    void measureStore();
    /** Under m_queueMutex: the oldest packet not committed, for the readiness test. */
    void updateOldestPending();
    static std::unordered_map<ZuUuid, ZuTimePeriodList> periodsByDevice(
        const std::vector<PacketPtr>& packets);

    Clock m_clock;
    Settings m_settings;
    std::atomic<bool> m_initialized{false};
    std::atomic<bool> m_overloaded{false};

    mutable Mutex m_queueMutex;
    std::condition_variable m_writerWake;
    std::condition_variable m_progress;
    std::vector<PacketPtr> m_queue;
    /** packetBytes() of each queued packet, and when it was accepted. */
    std::vector<std::size_t> m_queueBytes;
    std::vector<SteadyClock::time_point> m_queueTimes;
    std::size_t m_queueObjects = 0;
    /** When the oldest packet of the batch in hand was accepted; none between batches. */
    std::optional<SteadyClock::time_point> m_batchOldest;
    std::uint64_t m_enqueued = 0;
    /** packetBytes() of the packets accepted and not yet written, the batch in hand included. */
    std::size_t m_queuedBytes = 0;
    std::uint64_t m_done = 0;
    std::uint64_t m_flushTarget = 0;
    bool m_closeRequested = false;
    bool m_stopping = false;
    std::deque<utils::MoveOnlyFunc<void(sql::Database&)>> m_writerTasks;
    std::deque<Waiter> m_waiters;

    std::shared_ptr<OpenTracksSnapshots> m_openTracks;
    /** Fed by the writer's commits, read by activity counts. */
    std::shared_ptr<ActivityIndex> m_activityIndex;
    std::unique_ptr<TrackWriter> m_writer;
    std::thread m_writerThread;
    SteadyClock::time_point m_nextRetention;
    SteadyClock::time_point m_nextStoreMeasure;
    SteadyClock::time_point m_nextHeapTrim;
    /** Something was freed since the last trim. */
    bool m_heapTrimPending = false;
    std::string m_file;

    // Written without a lock on the ingest path; read by statistics() and isReady().
    std::atomic<std::uint64_t> m_packetsAccepted{0};
    std::atomic<std::uint64_t> m_packetsCommitted{0};
    std::atomic<std::uint64_t> m_packetsFailed{0};
    std::atomic<std::uint64_t> m_queuedPackets{0};
    std::atomic<std::uint64_t> m_queuedBytesFigure{0};
    std::atomic<std::uint64_t> m_maxQueuedPackets{0};
    std::atomic<std::uint64_t> m_storeBytes{0};
    std::atomic<std::uint64_t> m_diskAvailableBytes{0};
    /** SteadyClock nanoseconds of the oldest packet not committed; 0 when there is none. */
    std::atomic<std::int64_t> m_oldestPendingNs{0};
    /** TrackWriter::endedTracks() after the writer's latest batch. */
    std::atomic<std::size_t> m_endedBacklog{0};
    /** Objects queued and in the batch in hand. */
    std::atomic<std::uint64_t> m_pendingObjects{0};
    /**
     * Objects the writer commits per second, as measured over recent batches; a slow start, so
     * that the first saves do not queue more than the writer takes in time: a slow writer (a
     * loaded machine, a sanitizer build) takes ten times fewer than a fast one, which measures
     * its pace within a few short batches.
     */
    std::atomic<double> m_objectsPerSecond{2'000};

    Mutex m_lookupMutex;
    std::condition_variable m_lookupWake;
    std::deque<LookupTask> m_lookups;
    bool m_lookupsStopping = false;
    std::vector<LookupWorker> m_workers;
    std::vector<std::thread> m_lookupThreads;
    /** The reader of the searches answered in place, taken only when free (try_lock). */
    Mutex m_inPlaceMutex;
    std::unique_ptr<TrackReader> m_inPlaceReader;

    Mutex m_retentionHandlerMutex;
    RetentionHandler m_retentionHandler;

    PeriodsNotifier m_commitNotifier{PeriodsNotifier::WithoutHandler::drop};
    PeriodsNotifier m_notifier{PeriodsNotifier::WithoutHandler::keep};
    /** Completions of saves waiting for their commit, and releases of written packets. */
    TaskThread m_completions;
};

}  // namespace kest::analytics::db
