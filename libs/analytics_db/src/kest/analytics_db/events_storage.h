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
#include "periods_notifier.h"
#include "track_reader.h"
#include "track_writer.h"

namespace kest::analytics::db {

/**
 * The analytics events storage on an embedded SQLite database ("events.sqlite" in the
 * settings' directory). `save` queues; one writer thread aggregates the queue into tracks and
 * commits it in batches; a few lookup workers search on their own connections. How a filter
 * is applied is described in track_reader.h, how tracks are aggregated in track_aggregate.h.
 *
 * A batch that cannot be committed is rolled back and its packets are reported, per device as
 * the union of their periods, through the save-error handler on a thread of its own; a committed
 * batch is reported the same way through the commit handler, on another thread. Past
 * maxQueuedPackets, past maxQueuedBytes of packets not yet written, or while the oldest queued
 * packet has waited kMaxBacklogLag longer than maxCommitDelay, the storage is not ready until the
 * queue is below half of both marks and younger than the lag: what it has acknowledged and not
 * written stays within a memory and a time bound when packets come faster than they are written.
 * Before a
 * successful initialize, lookups complete at once (on the caller's thread) with an error and
 * saves are reported as failed (connectionError).
 */
class EventsStorage : public AbstractEventsStorage
{
public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;

    static constexpr const char* kFileName = "events.sqlite";
    /**
     * A batch is committed once this many packets are waiting, or after maxCommitDelay. It takes
     * at most kMaxBatchPackets, and at most a quarter of maxQueuedBytes.
     */
    static constexpr std::size_t kBatchPackets = 4096;
    static constexpr std::size_t kMaxBatchPackets = 16384;
    static constexpr int kLookupWorkers = 2;
    /** How far past maxCommitDelay the writer may fall behind before saves are refused. */
    static constexpr std::chrono::milliseconds kMaxBacklogLag{1000};
    /** Old tracks are deleted this many per transaction, between batches. */
    static constexpr int kRetentionBatchRows = 300;

    /** `clock` (wall time, for retention) defaults to the system clock. */
    explicit EventsStorage(Clock clock = nullptr);
    /** Commits everything queued, then stops the threads. */
    ~EventsStorage() override;

    bool initialize(const Settings& settings) override;
    void setOnSaveErrorHandler(SaveErrorHandler handler) override;
    bool isReady() const override;
    void save(std::shared_ptr<const common::metadata::ObjectMetadataPacket> packet) override;
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

    std::size_t queuedPackets() const;

    /** What a queued packet costs in memory, about: its objects, strings and allocations. */
    static std::size_t packetBytes(const common::metadata::ObjectMetadataPacket& packet);

private:
    /** A search or a count, run by a lookup worker with its connection. */
    using LookupTask = utils::MoveOnlyFunc<void(TrackReader&)>;

    void writerLoop();
    void lookupLoop(int worker);
    void queueLookup(LookupTask task);
    void writeBatch(const std::vector<PacketPtr>& batch);
    void applyRetention();
    void stop();
    void reportFailure(sql::DBResult result, const std::vector<PacketPtr>& packets);
    void measureStore();
    /** Whether the queue has waited too long for the writer; under m_queueMutex. */
    bool lagsBehind(std::chrono::steady_clock::time_point now) const;
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
    /** packetBytes() of each queued packet. */
    std::vector<std::size_t> m_queueBytes;
    std::chrono::steady_clock::time_point m_oldestQueued;
    std::uint64_t m_enqueued = 0;
    /** packetBytes() of the packets accepted and not yet written, the batch in hand included. */
    std::size_t m_queuedBytes = 0;
    std::uint64_t m_done = 0;
    std::uint64_t m_flushTarget = 0;
    bool m_stopping = false;
    std::deque<utils::MoveOnlyFunc<void(sql::Database&)>> m_writerTasks;

    std::unique_ptr<TrackWriter> m_writer;
    std::thread m_writerThread;
    std::chrono::steady_clock::time_point m_nextRetention;
    std::chrono::steady_clock::time_point m_nextStoreMeasure;
    std::string m_file;

    // Written without a lock on the ingest path; read by statistics().
    std::atomic<std::uint64_t> m_packetsAccepted{0};
    std::atomic<std::uint64_t> m_packetsCommitted{0};
    std::atomic<std::uint64_t> m_packetsFailed{0};
    std::atomic<std::uint64_t> m_queuedPackets{0};
    std::atomic<std::uint64_t> m_queuedBytesFigure{0};
    std::atomic<std::uint64_t> m_maxQueuedPackets{0};
    std::atomic<std::uint64_t> m_storeBytes{0};
    std::atomic<std::uint64_t> m_diskAvailableBytes{0};

    Mutex m_lookupMutex;
    std::condition_variable m_lookupWake;
    std::deque<LookupTask> m_lookups;
    bool m_lookupsStopping = false;
    std::vector<std::unique_ptr<TrackReader>> m_readers;
    std::vector<std::thread> m_lookupThreads;

    Mutex m_retentionHandlerMutex;
    RetentionHandler m_retentionHandler;

    PeriodsNotifier m_commitNotifier{PeriodsNotifier::WithoutHandler::drop};
    PeriodsNotifier m_notifier{PeriodsNotifier::WithoutHandler::keep};
};

}  // namespace kest::analytics::db
