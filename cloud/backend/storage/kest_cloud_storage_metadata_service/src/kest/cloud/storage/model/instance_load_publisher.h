#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <kest/analytics_db/storage_statistics.h>
#include <kest/network/aio/timer.h>
#include <kest/utils/mutex.h>

#include "instanse_load.h"

namespace kest::analytics::db {
class AbstractEventsStorage;
}

namespace kest::cloud::storage::metadatadb {

class AbstractDataDistributionStorage;

/**
 * Publishes this instance's load record every interval, from the events storage's running
 * figures, so that the instance selector can send new data where there is room for it.
 *
 * With dt the time since the previous publish:
 *
 *     rate  = packets accepted during dt / dt
 *     short = rate / nominalPacketsPerSecond + queuedPackets / maxQueuedPackets
 *     avg  += (short - avg) * (1 - exp(-dt / 15 min))      (avg starts at the first measured short)
 *     long  = avg + storeBytes / (storeBytes + diskAvailableBytes)
 *
 * short is 0 when idle and 1 at the nominal rate; its queue term reaches 1 when the storage stops
 * accepting. long, which the selector compares, is short averaged over about 15 minutes plus the
 * share of the volume that the store already fills, so a busy or filling instance gets less new
 * data, and a burst does not flip the choice. Figures equal to the last published ones are not
 * published again, since saving them changes nothing and only logs a warning. On stop the
 * instance publishes the largest figures a double holds, so that the selector prefers any
 * instance that still runs.
 */
class InstanceLoadPublisher
{
public:
    static constexpr std::chrono::minutes kAveragingTime{15};

    /** `host` is this instance's address in its load record. */
    InstanceLoadPublisher(AbstractDataDistributionStorage* storage,
                          const kest::analytics::db::AbstractEventsStorage* eventsStorage,
                          std::string host, std::chrono::milliseconds interval,
                          double nominalPacketsPerSecond);
    /** Stops, as stop() does. */
    ~InstanceLoadPublisher();

    InstanceLoadPublisher(const InstanceLoadPublisher&) = delete;
    InstanceLoadPublisher& operator=(const InstanceLoadPublisher&) = delete;

    /** Publishes now, then every interval on an I/O thread. */
    void start();
    /** Stops the timer and publishes the stopped figures; once. */
    void stop();

    /** Samples the events storage and publishes the figures unless they are unchanged. */
    void publish();

    /** The figures of a sample taken at `now`; advances the average. */
    InstanseLoad update(const kest::analytics::db::StorageStatistics& statistics,
                        std::chrono::steady_clock::time_point now);

private:
    void schedulePublish();

    AbstractDataDistributionStorage* const m_storage;
    const kest::analytics::db::AbstractEventsStorage* const m_eventsStorage;
    const std::string m_host;
    const std::chrono::milliseconds m_interval;
    const double m_nominalPacketsPerSecond;

    Mutex m_mutex;
    std::optional<std::chrono::steady_clock::time_point> m_lastSampleTime;
    std::uint64_t m_lastAccepted = 0;
    std::optional<double> m_average;
    std::optional<InstanseLoad> m_lastPublished;
    bool m_stopped = false;

    kest::network::aio::Timer m_timer;
};

}  // namespace kest::cloud::storage::metadatadb
