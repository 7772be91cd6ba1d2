#include "instance_load_publisher.h"

#include <cmath>
#include <limits>

#include <kest/analytics_db/abstract_events_storage.h>
#include <kest/utils/log/log.h>

#include "abstract_data_distribution_storage.h"

namespace kest::cloud::storage::metadatadb {

using namespace std::chrono;

InstanceLoadPublisher::InstanceLoadPublisher(
    AbstractDataDistributionStorage* storage,
    const kest::analytics::db::AbstractEventsStorage* eventsStorage, std::string host,
    milliseconds interval, double nominalPacketsPerSecond)
    : m_storage(storage),
      m_eventsStorage(eventsStorage),
      m_host(std::move(host)),
      m_interval(interval),
      m_nominalPacketsPerSecond(nominalPacketsPerSecond > 0 ? nominalPacketsPerSecond : 1)
{}

InstanceLoadPublisher::~InstanceLoadPublisher()
{
    stop();
}

void InstanceLoadPublisher::start()
{
    publish();
    schedulePublish();
}

void InstanceLoadPublisher::schedulePublish()
{
    m_timer.start(m_interval, [this] {
        publish();
        schedulePublish();
    });
}

void InstanceLoadPublisher::stop()
{
    m_timer.pleaseStopSync();
    {
        std::lock_guard lock(m_mutex);
        if (m_stopped)
            return;
        m_stopped = true;
    }
    constexpr double kStopped = std::numeric_limits<double>::max();
    m_storage->saveInstanceLoad({m_host, kStopped, kStopped});
}

void InstanceLoadPublisher::publish()
{
    const auto statistics =
        m_eventsStorage ? m_eventsStorage->statistics() : kest::analytics::db::StorageStatistics();
    const InstanseLoad load = update(statistics, steady_clock::now());
    {
        std::lock_guard lock(m_mutex);
        if (m_stopped || (m_lastPublished && *m_lastPublished == load))
            return;
        m_lastPublished = load;
    }
    KEST_VERBOSE(this, "Publishing load %1", load);
    m_storage->saveInstanceLoad(load);
}

InstanseLoad InstanceLoadPublisher::update(const kest::analytics::db::StorageStatistics& statistics,
                                           steady_clock::time_point now)
{
    std::lock_guard lock(m_mutex);
    double rate = 0;
    std::optional<double> elapsedS;
    if (m_lastSampleTime && now > *m_lastSampleTime) {
        elapsedS = duration<double>(now - *m_lastSampleTime).count();
        // A counter that went back belongs to another storage: no rate from it.
        if (statistics.packetsAccepted >= m_lastAccepted)
            rate = static_cast<double>(statistics.packetsAccepted - m_lastAccepted) / *elapsedS;
    }
    m_lastSampleTime = now;
    m_lastAccepted = statistics.packetsAccepted;

    const double queueFill =
        statistics.maxQueuedPackets > 0
            ? static_cast<double>(statistics.queuedPackets) / statistics.maxQueuedPackets
            : 0.0;
    const double shortMetric = rate / m_nominalPacketsPerSecond + queueFill;
    if (elapsedS) {
        const double weight = 1 - std::exp(-*elapsedS / duration<double>(kAveragingTime).count());
        m_average = m_average ? *m_average + (shortMetric - *m_average) * weight : shortMetric;
    }
    const double volume = static_cast<double>(statistics.storeBytes) +
                          static_cast<double>(statistics.diskAvailableBytes);
    const double storeShare = volume > 0 ? statistics.storeBytes / volume : 0.0;
    return {m_host, shortMetric, m_average.value_or(shortMetric) + storeShare};
}

}  // namespace kest::cloud::storage::metadatadb
