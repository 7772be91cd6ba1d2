#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include <kest/network/aio/timer.h>
#include <kest/vms_common/zu_time_period_list.h>
#include <kest/vms_common/zu_uuid.h>

namespace kest::cloud::storage::metadatadb {

class AbstractDataDistributionStorage;

/**
 * Records in the shared database which device data this instance holds, as spans with this
 * instance as their node, so that other instances find it within moments of its commit, and
 * keeps those spans few.
 *
 * Spans are leases on a device's stream. Data of a device that no recorded span covers gets a
 * span at once that reaches the lease length F past it; once committed data comes within F / 2
 * of a lease's end, the next lease of F is recorded. A steady stream so adds one span per F,
 * plus one after each silence longer than F, and a search finds data as soon as its span is
 * saved, the newest data included. A span may claim up to 1.5 F more than the instance holds;
 * asking it then costs one lookup that finds nothing.
 *
 * Every hour the recorder reads its own spans back and compacts them (DataAddressCompaction):
 * those that end before the oldest data still held go, old ones merge. It reads them once at
 * start too, and records nothing until then, so that a restart does not record again what is
 * already recorded.
 *
 * One write to the shared database is in flight at a time, new spans first: concurrent writes to
 * one document could undo each other on some servers. A failed save is retried after 1 s,
 * doubling up to a minute; it is logged as an error with its spans when it fails twice (later
 * failures only by their count), and retries go on while at most maxPendingSpans wait, the
 * oldest being dropped, and logged, past that.
 */
class DataAddressRecorder
{
public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;

    static constexpr std::size_t kMaxPendingSpans = 100'000;
    static constexpr std::chrono::milliseconds kCompactionInterval{3'600'000};
    static constexpr std::chrono::milliseconds kFirstRetryDelay{1'000};
    static constexpr std::chrono::milliseconds kMaxRetryDelay{60'000};
    /** How often the timer looks for due retries and compactions. */
    static constexpr std::chrono::milliseconds kTickInterval{1'000};
    /** Recorded periods remembered per device, the newest; older data may get a span again. */
    static constexpr std::size_t kMaxPeriodsPerDevice = 64;

    struct Options
    {
        /** F: the lease length. */
        std::chrono::milliseconds leaseLength{300'000};
        /** Wall time, for retries and compaction; null: the system clock. */
        Clock clock = nullptr;
        /** Whether tick() runs on a timer of its own; without it the owner calls tick(). */
        bool timer = true;
        std::size_t maxPendingSpans = kMaxPendingSpans;
        std::chrono::milliseconds compactionInterval = kCompactionInterval;
    };

    /** `host` becomes the node of every span. `storage` must outlive the recorder. */
    DataAddressRecorder(AbstractDataDistributionStorage* storage, std::string host,
                        Options options);
    /** Stops, as stop() does. */
    ~DataAddressRecorder();

    DataAddressRecorder(const DataAddressRecorder&) = delete;
    DataAddressRecorder& operator=(const DataAddressRecorder&) = delete;

    /** Reads this instance's recorded spans, then records and compacts. */
    void start();

    /** Takes the periods of a committed batch per device. Any thread; never blocks for long. */
    void recordCommitted(const std::unordered_map<ZuUuid, ZuTimePeriodList>& periods);

    /** Spans that end at or before `time` are removed at the next compaction. Any thread. */
    void setOldestKept(std::chrono::system_clock::time_point time);

    /** Sends due retries and starts a due compaction. Never blocks for long. */
    void tick();

    /**
     * Stops the timer and compaction, waits for the write in flight, and hands everything still
     * to be saved to the storage. A save that fails later is logged as lost, not retried.
     */
    void stop();

    /** Spans not saved yet: waiting to be sent, or for a retry. */
    std::size_t pendingSpans() const;

private:
    struct State;

    void scheduleTick();

    std::shared_ptr<State> m_state;
    const bool m_withTimer;
    kest::network::aio::Timer m_timer;
};

}  // namespace kest::cloud::storage::metadatadb
