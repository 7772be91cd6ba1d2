#include "events_storage.h"

#include <algorithm>
#include <filesystem>

#include <QDir>
#include <QFileInfo>

#include <kest/utils/assert.h>
#include <kest/utils/heap.h>
#include <kest/utils/log/log.h>

#include "activity_counter.h"

namespace kest::analytics::db {

using sql::DBResult;
using namespace std::chrono;
using SteadyTime = steady_clock::time_point;

namespace {

std::int64_t nanoseconds(SteadyTime time)
{
    return duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

}  // namespace

EventsStorage::EventsStorage(Clock clock)
    : m_clock(clock ? std::move(clock) : Clock([] { return system_clock::now(); }))
{}

EventsStorage::~EventsStorage()
{
    stop();
}

bool EventsStorage::initialize(const Settings& settings)
{
    if (m_initialized || m_writerThread.joinable()) {
        KEST_ASSERT(false, "The events storage is initialized twice");
        return false;
    }
    m_settings = settings;
    // Settings may come from code as well as from a file: keep the time arithmetic in range.
    m_settings.maxAgeDays = std::clamp(m_settings.maxAgeDays, 0, Settings::kMaxAgeDaysLimit);
    m_settings.maxCommitDelay =
        std::clamp(m_settings.maxCommitDelay, std::chrono::milliseconds::zero(),
                   Settings::kMaxCommitDelayLimit);
    if (settings.path.isEmpty()) {
        KEST_ERROR(this, "Analytics database path is not set");
        return false;
    }
    if (!QDir().mkpath(settings.path) || !QFileInfo(settings.path).isDir()) {
        KEST_ERROR(this, "Cannot create analytics database directory %1", settings.path);
        return false;
    }
    const std::string file = QDir(settings.path).filePath(kFileName).toStdString();

    auto openTracks = std::make_shared<OpenTracksSnapshots>();
    // Freeing a superseded commit's index of the open tracks took the writer as long as making
    // the next one; the thread that frees written packets does it.
    openTracks->setReleaser([this](OpenTracksSnapshots::Dropped dropped) {
        m_completions.post([released = std::move(dropped)] {});
    });
    auto activityIndex = std::make_shared<ActivityIndex>();
    auto writer = std::make_unique<TrackWriter>(openTracks);
    writer->setMaxOpenTrackBytes(settings.maxOpenTrackBytes);
    sql::ConnectionOptions writerOptions = settings.connection;
    writerOptions.cacheSizeKb = settings.writerCacheSizeKb;
    // The writer reads the few pages where rows go; mapped, all it ever read would stay resident.
    writerOptions.mmapSizeMb = 0;
    if (const DBResult r = writer->open(file, writerOptions); r != DBResult::ok) {
        KEST_ERROR(this, "Cannot open analytics database %1: %2 (%3)", file, r,
                   writer->database().lastError());
        return false;
    }
    writer->setActivityIndex(activityIndex);
    // Without it counts read the track table, which is slower, not wrong.
    if (const DBResult r = activityIndex->load(writer->database()); r != DBResult::ok) {
        KEST_WARNING(this, "Cannot load the activity index of %1: %2 (%3)", file, r,
                     writer->database().lastError());
    }
    std::vector<LookupWorker> workers;
    for (int i = 0; i < kLookupWorkers; ++i) {
        auto reader = std::make_unique<TrackReader>(openTracks);
        if (const DBResult r = reader->open(file, settings.connection); r != DBResult::ok) {
            KEST_ERROR(this, "Cannot open analytics database %1 for reading: %2", file, r);
            return false;
        }
        auto counter =
            std::make_unique<ActivityCounter>(reader->database(), openTracks, activityIndex);
        workers.push_back({std::move(reader), std::move(counter)});
    }

    auto inPlaceReader = std::make_unique<TrackReader>(openTracks);
    if (const DBResult r = inPlaceReader->open(file, settings.connection); r != DBResult::ok) {
        KEST_ERROR(this, "Cannot open analytics database %1 for reading: %2", file, r);
        return false;
    }

    m_inPlaceReader = std::move(inPlaceReader);
    m_openTracks = std::move(openTracks);
    m_activityIndex = std::move(activityIndex);
    m_writer = std::move(writer);
    m_workers = std::move(workers);
    m_file = file;
    m_maxQueuedPackets = m_settings.maxQueuedPackets;
    measureStore();
    m_nextRetention = SteadyClock::now();
    m_writerThread = std::thread([this] { writerLoop(); });
    for (int i = 0; i < kLookupWorkers; ++i)
        m_lookupThreads.emplace_back([this, i] { lookupLoop(i); });
    m_initialized = true;
    KEST_INFO(this, "Analytics database %1 is open", file);
    return true;
}

void EventsStorage::setOnSaveErrorHandler(SaveErrorHandler handler)
{
    m_notifier.setHandler(std::move(handler));
}

bool EventsStorage::isReady() const
{
    if (!m_initialized || m_overloaded ||
        m_endedBacklog.load(std::memory_order_relaxed) > kMaxEndedBacklog) {
        return false;
    }
    // What is acknowledged now is committed after what waits already: refuse while that would
    // take it past the bound, or while the oldest waiting packet is close to it.
    const auto bound = m_settings.maxCommitDelay + kMaxBacklogLag - kAckMargin;
    const std::int64_t oldest = m_oldestPendingNs.load(std::memory_order_relaxed);
    if (oldest != 0 && nanoseconds(SteadyClock::now()) - oldest >
                           duration_cast<std::chrono::nanoseconds>(bound).count()) {
        return false;
    }
    const double pending = static_cast<double>(m_pendingObjects.load(std::memory_order_relaxed));
    const double pace = m_objectsPerSecond.load(std::memory_order_relaxed);
    return pending / pace <= duration<double>(bound).count() / 2;
}

bool EventsStorage::acknowledgesAfterCommit() const
{
    return m_settings.ackAfterCommit;
}

void EventsStorage::setOnCommitHandler(CommitHandler handler)
{
    if (!handler) {
        m_commitNotifier.setHandler(nullptr);
        return;
    }
    m_commitNotifier.setHandler(
        [handler = std::move(handler)](DBResult, PeriodsNotifier::Periods periods) mutable {
            handler(std::move(periods));
        });
}

void EventsStorage::setOnRetentionHandler(RetentionHandler handler)
{
    std::lock_guard lock(m_retentionHandlerMutex);
    m_retentionHandler = std::move(handler);
}

StorageStatistics EventsStorage::statistics() const
{
    StorageStatistics result;
    result.packetsAccepted = m_packetsAccepted.load(std::memory_order_relaxed);
    result.packetsCommitted = m_packetsCommitted.load(std::memory_order_relaxed);
    result.packetsFailed = m_packetsFailed.load(std::memory_order_relaxed);
    result.queuedPackets = m_queuedPackets.load(std::memory_order_relaxed);
    result.maxQueuedPackets = m_maxQueuedPackets.load(std::memory_order_relaxed);
    result.queuedBytes = m_queuedBytesFigure.load(std::memory_order_relaxed);
    result.storeBytes = m_storeBytes.load(std::memory_order_relaxed);
    result.diskAvailableBytes = m_diskAvailableBytes.load(std::memory_order_relaxed);
    const std::int64_t oldest = m_oldestPendingNs.load(std::memory_order_relaxed);
    if (oldest != 0) {
        result.oldestUncommittedAgeUs = static_cast<std::uint64_t>(
            std::max<std::int64_t>(0, nanoseconds(SteadyClock::now()) - oldest) / 1000);
    }
    return result;
}

std::size_t EventsStorage::packetBytes(const common::metadata::ObjectMetadataPacket& packet)
{
    // Every heap block costs its header too; strings up to 15 characters live inside the object.
    constexpr std::size_t kBlock = 16;
    const auto text = [](const std::string& s) {
        return s.capacity() > 15 ? s.capacity() + 1 + kBlock : 0;
    };
    using common::metadata::Attribute;
    using common::metadata::ObjectMetadata;
    // The packet and the shared pointer's control block are one block (make_shared) or two.
    std::size_t bytes = sizeof(packet) + 2 * kBlock + 16;
    if (packet.objectMetadataList.capacity() > 0)
        bytes += packet.objectMetadataList.capacity() * sizeof(ObjectMetadata) + kBlock;
    for (const auto& object : packet.objectMetadataList) {
        bytes += text(object.typeId);
        if (object.attributes.capacity() > 0)
            bytes += object.attributes.capacity() * sizeof(Attribute) + kBlock;
        for (const auto& attribute : object.attributes)
            bytes += text(attribute.name) + text(attribute.value);
    }
    return bytes;
}

std::size_t EventsStorage::queuedPackets() const
{
    std::lock_guard lock(m_queueMutex);
    return m_queue.size();
}

void EventsStorage::updateOldestPending()
{
    std::int64_t oldest = 0;
    if (m_batchOldest)
        oldest = nanoseconds(*m_batchOldest);
    else if (!m_queueTimes.empty())
        oldest = nanoseconds(m_queueTimes.front());
    m_oldestPendingNs.store(oldest, std::memory_order_relaxed);
}

void EventsStorage::enqueue(std::shared_ptr<const common::metadata::ObjectMetadataPacket> packet,
                            SteadyTime now)
{
    const std::size_t bytes = packetBytes(*packet);
    const std::size_t objects = packet->objectMetadataList.size();
    m_queue.push_back(std::move(packet));
    m_queueBytes.push_back(bytes);
    m_queueTimes.push_back(now);
    ++m_enqueued;
    m_queuedBytes += bytes;
    m_queueObjects += objects;
    if (m_queue.size() == 1 && !m_batchOldest)
        updateOldestPending();
    m_queuedPackets.store(m_queue.size(), std::memory_order_relaxed);
    m_queuedBytesFigure.store(m_queuedBytes, std::memory_order_relaxed);
    m_pendingObjects.fetch_add(objects, std::memory_order_relaxed);
    if (m_queue.size() > m_settings.maxQueuedPackets || m_queuedBytes > m_settings.maxQueuedBytes)
        m_overloaded = true;
    m_packetsAccepted.fetch_add(1, std::memory_order_relaxed);
}

void EventsStorage::save(std::shared_ptr<const common::metadata::ObjectMetadataPacket> packet)
{
    if (!packet)
        return;
    if (!m_initialized) {
        reportFailure(DBResult::connectionError, {packet});
        return;
    }
    bool wake = false;
    {
        std::unique_lock lock(m_queueMutex);
        if (m_stopping) {
            // Only reachable by a save racing the destructor: the writer is gone.
            lock.unlock();
            reportFailure(DBResult::cancelled, {packet});
            return;
        }
        enqueue(std::move(packet), SteadyClock::now());
        // Waking the writer on every packet would cost a system call each; it only needs to
        // know about the first one (to start the delay) and about a batch's worth.
        wake = m_queue.size() == 1 || m_queue.size() == kEagerBatchPackets;
    }
    if (wake)
        m_writerWake.notify_one();
}

void EventsStorage::saveCommitted(
    std::vector<std::shared_ptr<const common::metadata::ObjectMetadataPacket>> packets,
    CommittedHandler handler)
{
    std::erase(packets, nullptr);
    if (packets.empty()) {
        handler(true);
        return;
    }
    if (!m_initialized) {
        reportFailure(DBResult::connectionError,
                      std::vector<PacketPtr>(packets.begin(), packets.end()));
        handler(false);
        return;
    }
    {
        std::unique_lock lock(m_queueMutex);
        if (m_stopping) {
            lock.unlock();
            reportFailure(DBResult::cancelled,
                          std::vector<PacketPtr>(packets.begin(), packets.end()));
            handler(false);
            return;
        }
        const auto now = SteadyClock::now();
        Waiter waiter;
        waiter.first = m_enqueued + 1;
        for (auto& packet : packets)
            enqueue(std::move(packet), now);
        waiter.last = m_enqueued;
        waiter.handler = std::move(handler);
        m_waiters.push_back(std::move(waiter));
    }
    // Someone waits: the writer commits what it has at once, together with whatever else came.
    m_writerWake.notify_one();
}

void EventsStorage::lookup(Filter filter, LookupHandler completionHandler)
{
    if (!m_initialized) {
        completionHandler(ResultCode::error, {});
        return;
    }
    if (answersInPlace(filter)) {
        std::unique_lock lock(m_inPlaceMutex, std::try_to_lock);
        if (lock.owns_lock() && m_inPlaceReader) {
            std::vector<ObjectTrackEx> tracks;
            const ResultCode code = lookupWith(*m_inPlaceReader, filter, &tracks);
            lock.unlock();
            completionHandler(code, std::move(tracks));
            return;
        }
    }
    queueLookup([this, filter = std::move(filter),
                 handler = std::move(completionHandler)](LookupWorker& worker) mutable {
        std::vector<ObjectTrackEx> tracks;
        const ResultCode code = lookupWith(*worker.reader, filter, &tracks);
        handler(code, std::move(tracks));
    });
}

ResultCode EventsStorage::lookupWith(TrackReader& reader, const Filter& filter,
                                     std::vector<ObjectTrackEx>* tracks)
{
    const ResultCode code = reader.lookup(filter, tracks);
    if (code != ResultCode::ok) {
        KEST_WARNING(this, "Analytics database lookup failed: %1", reader.lastError());
        tracks->clear();
    }
    return code;
}

bool EventsStorage::answersInPlace(const Filter& filter)
{
    return !filter.objectTrackId.isNull() && !filter.needFullTrack &&
           TextMatcher::words(filter.freeText).empty();
}

void EventsStorage::countActivity(ActivityQuery query, ActivityHandler completionHandler)
{
    if (!m_initialized) {
        completionHandler(ResultCode::error, {});
        return;
    }
    queueLookup([this, query = std::move(query),
                 handler = std::move(completionHandler)](LookupWorker& worker) mutable {
        Activity activity;
        ActivityCounter& counter = *worker.counter;
        const ResultCode code = counter.count(query, &activity);
        if (code != ResultCode::ok) {
            KEST_WARNING(this, "Analytics database activity count failed: %1", counter.lastError());
            activity = {};
        }
        handler(code, std::move(activity));
    });
}

void EventsStorage::queueLookup(LookupTask task)
{
    {
        std::lock_guard lock(m_lookupMutex);
        m_lookups.push_back(std::move(task));
    }
    m_lookupWake.notify_one();
}

void EventsStorage::flush()
{
    {
        std::unique_lock lock(m_queueMutex);
        if (!m_writerThread.joinable())
            return;
        const std::uint64_t target = m_enqueued;
        m_flushTarget = std::max(m_flushTarget, target);
        m_writerWake.notify_one();
        m_progress.wait(lock, [&] { return m_done >= target; });
    }
    // The batches are reported before the writer counts them done.
    m_commitNotifier.waitUntilDelivered();
}

void EventsStorage::closeOpenTracks()
{
    flush();
    std::unique_lock lock(m_queueMutex);
    if (!m_writerThread.joinable())
        return;
    m_closeRequested = true;
    m_writerWake.notify_one();
    m_progress.wait(lock, [&] { return !m_closeRequested; });
}

void EventsStorage::runOnWriter(utils::MoveOnlyFunc<void(sql::Database&)> task)
{
    {
        std::lock_guard lock(m_queueMutex);
        m_writerTasks.push_back(std::move(task));
    }
    m_writerWake.notify_one();
}

void EventsStorage::writerLoop()
{
    std::unique_lock lock(m_queueMutex);
    auto nextIdleClose = SteadyClock::now() + 1s;
    for (;;) {
        const auto batchDue = [&] {
            return m_stopping || !m_writerTasks.empty() || m_closeRequested ||
                   m_queue.size() >= kEagerBatchPackets ||
                   (!m_queue.empty() &&
                    (m_flushTarget > m_done || !m_waiters.empty() ||
                     SteadyClock::now() >= m_queueTimes.front() + m_settings.maxCommitDelay));
        };
        if (m_queue.empty()) {
            // Idle: wake for retention (at once while old tracks are still waiting), for tracks
            // that nothing came for, and for the first packet, whose delay then starts.
            // So do ended tracks past the backlog that refuses saves: they are written at once.
            const bool retentionDue =
                m_settings.maxAgeDays > 0 && SteadyClock::now() >= m_nextRetention;
            const bool closesDue =
                m_endedBacklog.load(std::memory_order_relaxed) > kMaxEndedBacklog;
            if (closesDue)
                nextIdleClose = SteadyClock::now();
            m_writerWake.wait_for(lock, retentionDue || closesDue ? 0s : 1s,
                                  [&] { return batchDue() || !m_queue.empty(); });
        } else {
            m_writerWake.wait_until(lock, m_queueTimes.front() + m_settings.maxCommitDelay,
                                    batchDue);
        }
        if (m_stopping && m_queue.empty() && m_writerTasks.empty() && !m_closeRequested)
            return;

        auto tasks = std::move(m_writerTasks);
        m_writerTasks.clear();
        const bool closeAll = m_closeRequested;
        std::vector<PacketPtr> batch;
        std::vector<SteadyTime> batchTimes;
        // Counted as queued until released: the batch holds its memory while it is written.
        std::size_t batchBytes = 0;
        std::size_t batchObjects = 0;
        if (batchDue() && !m_queue.empty()) {
            // A batch takes at most a quarter of the memory mark, so that saves go on being
            // accepted while it is written and the writer always has the next batch waiting;
            // and what the writer writes in kBatchTime, so that it is committed in time.
            const std::size_t byteLimit = std::max<std::size_t>(m_settings.maxQueuedBytes / 4, 1);
            const auto objectLimit = static_cast<std::size_t>(
                std::max(1024.0, m_objectsPerSecond.load(std::memory_order_relaxed) *
                                     duration<double>(kBatchTime).count()));
            std::size_t count = 0;
            for (const std::size_t end = std::min(m_queue.size(), kMaxBatchPackets); count < end;
                 ++count) {
                const std::size_t objects = m_queue[count]->objectMetadataList.size();
                if (count > 0 && (batchBytes + m_queueBytes[count] > byteLimit ||
                                  batchObjects + objects > objectLimit)) {
                    break;
                }
                batchBytes += m_queueBytes[count];
                batchObjects += objects;
            }
            m_batchOldest = m_queueTimes.front();
            batchTimes.assign(m_queueTimes.begin(), m_queueTimes.begin() + count);
            if (count == m_queue.size()) {
                batch.swap(m_queue);
                m_queueBytes.clear();
                m_queueTimes.clear();
            } else {
                batch.assign(std::make_move_iterator(m_queue.begin()),
                             std::make_move_iterator(m_queue.begin() + count));
                m_queue.erase(m_queue.begin(), m_queue.begin() + count);
                m_queueBytes.erase(m_queueBytes.begin(), m_queueBytes.begin() + count);
                m_queueTimes.erase(m_queueTimes.begin(), m_queueTimes.begin() + count);
            }
            m_queueObjects -= batchObjects;
            m_queuedPackets.store(m_queue.size(), std::memory_order_relaxed);
        }
        lock.unlock();

        for (auto& task : tasks)
            task(m_writer->database());
        bool written = true;
        bool freedTracks = false;
        std::vector<PacketPtr> rest;
        std::vector<SteadyTime> restTimes;
        if (!batch.empty()) {
            const auto started = SteadyClock::now();
            std::size_t taken = batch.size();
            written = writeBatch(batch, started + kBatchTime / 2, &taken);

            const double seconds = duration<double>(SteadyClock::now() - started).count();
            if (taken < batch.size()) {
                // What the batch had no time for is the head of the queue again.
                rest.assign(std::make_move_iterator(batch.begin() + taken),
                            std::make_move_iterator(batch.end()));
                restTimes.assign(batchTimes.begin() + taken, batchTimes.end());
                batch.resize(taken);
            }
            std::size_t objects = 0;
            for (const auto& packet : batch)
                objects += packet->objectMetadataList.size();
            // Small batches say more about the commit's fixed cost than about the pace; a slow
            // one counts at once, a fast one a little. "Small" is relative to what the pace lets
            // a batch take: at a low pace every batch is small in absolute terms, and a fixed
            // threshold would keep the pace from ever rising.
            const double previous = m_objectsPerSecond.load(std::memory_order_relaxed);
            const double telling =
                std::min(1024.0, previous * duration<double>(kBatchTime).count() / 2);
            if (written && static_cast<double>(objects) >= telling && seconds > 0) {
                const double pace = objects / seconds;
                m_objectsPerSecond.store(pace < previous ? pace : 0.8 * previous + 0.2 * pace,
                                         std::memory_order_relaxed);
            }
        } else if (SteadyClock::now() >= nextIdleClose && m_writer->openTracks() > 0) {
            nextIdleClose = SteadyClock::now() + 1s;
            const DBResult r = m_writer->closeTracks(true, SteadyClock::now() + kBatchTime / 2);
            if (r != DBResult::ok)
                KEST_WARNING(this, "Writing ended tracks failed: %1", r);
            freedTracks = true;
        }
        if (closeAll) {
            if (const DBResult r = m_writer->closeTracks(false); r != DBResult::ok)
                KEST_WARNING(this, "Writing the open tracks failed: %1", r);
        }
        m_endedBacklog.store(m_writer->endedTracks(), std::memory_order_relaxed);
        if (m_settings.maxAgeDays > 0 && SteadyClock::now() >= m_nextRetention)
            applyRetention();
        if (SteadyClock::now() >= m_nextStoreMeasure)
            measureStore();
        const std::size_t count = batch.size();
        // Freeing a batch's packets takes as long as a good part of writing them.
        if (!batch.empty())
            m_completions.post([released = std::move(batch)] {});
        // Searches' views of tracks written since go once they are no longer the latest.
        if (m_openTracks->dropSuperseded() > 0)
            freedTracks = true;
        if (count > 0 || freedTracks)
            m_heapTrimPending = true;
        if (m_heapTrimPending && SteadyClock::now() >= m_nextHeapTrim) {
            // After the packets it follows are freed, and off the writer: it takes milliseconds.
            // Tracks that end once the packets stop are freed too, so the idle writer trims;
            // and what was freed within the interval of the last trim is trimmed at its end.
            m_heapTrimPending = false;
            m_nextHeapTrim = SteadyClock::now() + kHeapTrimInterval;
            m_completions.post([] { utils::Heap::releaseFree(); });
        }

        lock.lock();
        if (!rest.empty()) {
            std::size_t restBytes = 0, restObjects = 0;
            std::vector<std::size_t> bytes;
            for (const auto& packet : rest) {
                bytes.push_back(packetBytes(*packet));
                restBytes += bytes.back();
                restObjects += packet->objectMetadataList.size();
            }
            m_queueBytes.insert(m_queueBytes.begin(), bytes.begin(), bytes.end());
            m_queueTimes.insert(m_queueTimes.begin(), restTimes.begin(), restTimes.end());
            m_queue.insert(m_queue.begin(), std::make_move_iterator(rest.begin()),
                           std::make_move_iterator(rest.end()));
            m_queueObjects += restObjects;
            batchBytes -= restBytes;
            batchObjects -= restObjects;
            m_queuedPackets.store(m_queue.size(), std::memory_order_relaxed);
        }
        const std::uint64_t first = m_done + 1;
        m_done += count;
        m_queuedBytes -= batchBytes;
        m_pendingObjects.fetch_sub(batchObjects, std::memory_order_relaxed);
        m_batchOldest.reset();
        updateOldestPending();
        m_queuedBytesFigure.store(m_queuedBytes, std::memory_order_relaxed);
        if (closeAll)
            m_closeRequested = false;
        if (!written) {
            for (auto& waiter : m_waiters) {
                if (waiter.first <= m_done && waiter.last >= first)
                    waiter.failed = true;
            }
        }
        while (!m_waiters.empty() && m_waiters.front().last <= m_done) {
            m_completions.post(
                [handler = std::move(m_waiters.front().handler),
                 committed = !m_waiters.front().failed]() mutable { handler(committed); });
            m_waiters.pop_front();
        }
        if (m_overloaded && m_queue.size() <= m_settings.maxQueuedPackets / 2 &&
            m_queuedBytes <= m_settings.maxQueuedBytes / 2) {
            m_overloaded = false;
        }
        m_progress.notify_all();
    }
}

bool EventsStorage::writeBatch(const std::vector<PacketPtr>& batch,
                               SteadyClock::time_point deadline, std::size_t* taken)
{
    const DBResult result = m_writer->write(batch, deadline, taken);
    if (result == DBResult::ok) {
        m_packetsCommitted.fetch_add(*taken, std::memory_order_relaxed);
        if (m_commitNotifier.wantsReports()) {
            m_commitNotifier.report(result, periodsByDevice(std::vector<PacketPtr>(
                                                batch.begin(), batch.begin() + *taken)));
        }
        return true;
    }
    *taken = batch.size();
    KEST_ERROR(this, "Saving %1 packets to the analytics database failed: %2 (%3)", batch.size(),
               result, m_writer->lastError());
    reportFailure(result, batch);
    return false;
}

void EventsStorage::reportFailure(DBResult result, const std::vector<PacketPtr>& packets)
{
    m_packetsFailed.fetch_add(packets.size(), std::memory_order_relaxed);
    m_notifier.report(result, periodsByDevice(packets));
}

std::unordered_map<ZuUuid, ZuTimePeriodList> EventsStorage::periodsByDevice(
    const std::vector<PacketPtr>& packets)
{
    // One sort per device: adding the periods one by one would sort the list per packet.
    std::unordered_map<ZuUuid, std::vector<ZuTimePeriod>> collected;
    for (const auto& packet : packets)
        collected[packet->deviceId].push_back(packet->timePeriod());
    std::unordered_map<ZuUuid, ZuTimePeriodList> periods;
    for (auto& [device, list] : collected)
        ZuTimePeriodList::unionTimePeriods(periods[device], ZuTimePeriodList(std::move(list)));
    return periods;
}

void EventsStorage::measureStore()
{
    namespace fs = std::filesystem;
    std::error_code error;
    std::uint64_t bytes = 0;
    for (const char* suffix : {"", "-wal"}) {
        const auto size = fs::file_size(m_file + suffix, error);
        if (!error)
            bytes += size;
    }
    m_storeBytes.store(bytes, std::memory_order_relaxed);
    const auto space = fs::space(fs::path(m_file).parent_path(), error);
    if (!error)
        m_diskAvailableBytes.store(space.available, std::memory_order_relaxed);
    m_nextStoreMeasure = SteadyClock::now() + seconds(1);
}

void EventsStorage::applyRetention()
{
    const std::int64_t nowUs = duration_cast<microseconds>(m_clock().time_since_epoch()).count();
    const std::int64_t cutoffUs =
        nowUs - duration_cast<microseconds>(days(m_settings.maxAgeDays)).count();
    int deleted = 0;
    const DBResult result = m_writer->deleteExpired(cutoffUs, kRetentionBatchRows, &deleted);
    if (result != DBResult::ok) {
        KEST_WARNING(this, "Deleting old tracks failed: %1 (%2)", result,
                     m_writer->database().lastError());
        m_nextRetention = SteadyClock::now() + seconds(10);
        return;
    }
    if (deleted > 0)
        KEST_DEBUG(this, "Deleted %1 tracks last seen before %2 us", deleted, cutoffUs);
    if (std::lock_guard lock(m_retentionHandlerMutex); m_retentionHandler) {
        // A track last seen after the cutoff is kept whole, so the oldest data may start before;
        // so may a track that is still open.
        std::int64_t oldestUs = std::min(cutoffUs, m_writer->earliestOpenFirstUs());
        if (auto* s = m_writer->database().cached("SELECT MIN(first_us) FROM track")) {
            if (s->step() && !s->isNull(0))
                oldestUs = std::min(oldestUs, s->int64(0));
            s->reset();  //< Left on its row, it would hold back checkpoints.
        }
        m_retentionHandler(system_clock::time_point(microseconds(oldestUs)));
    }
    // A full batch means more is waiting: come back after the next write batch.
    m_nextRetention = SteadyClock::now() + (deleted == kRetentionBatchRows ? 0s : 1s);
}

void EventsStorage::lookupLoop(int worker)
{
    LookupWorker& lookupWorker = m_workers[worker];
    std::unique_lock lock(m_lookupMutex);
    for (;;) {
        m_lookupWake.wait(lock, [&] { return m_lookupsStopping || !m_lookups.empty(); });
        if (m_lookups.empty())
            return;
        LookupTask task = std::move(m_lookups.front());
        m_lookups.pop_front();
        lock.unlock();

        try {
            task(lookupWorker);
        } catch (const std::exception& e) {
            KEST_ERROR(this, "Lookup handler threw: %1", e.what());
        }
        lock.lock();
    }
}

void EventsStorage::stop()
{
    if (m_writerThread.joinable()) {
        flush();
        {
            std::lock_guard lock(m_queueMutex);
            m_stopping = true;
        }
        m_writerWake.notify_one();
        m_writerThread.join();
    }
    {
        std::lock_guard lock(m_lookupMutex);
        m_lookupsStopping = true;
    }
    m_lookupWake.notify_all();
    for (auto& thread : m_lookupThreads)
        thread.join();
    m_lookupThreads.clear();
    // Saves waiting for their commit learn of it before the storage goes.
    m_completions.drain();
    m_initialized = false;
    m_writer.reset();
    m_workers.clear();
    {
        // A search in place that began before the storage stopped ends before its reader goes.
        std::lock_guard lock(m_inPlaceMutex);
        m_inPlaceReader.reset();
    }
}

}  // namespace kest::analytics::db
