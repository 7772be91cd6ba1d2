#include "cluster_presence.h"

#include <kest/analytics_db/abstract_events_storage.h>
#include <kest/cloud/storage/cluster_settings.h>
#include <kest/utils/log/log.h>

#include "data_address_recorder.h"
#include "instance_load_publisher.h"
#include "model.h"

namespace kest::cloud::storage::metadatadb {

ClusterPresence::ClusterPresence(const conf::ClusterSettings& settings, Model& model)
    : m_model(model),
      m_recorder(std::make_unique<DataAddressRecorder>(
          model.getDDSModel(), settings.advertisedUrl,
          DataAddressRecorder::Options{.leaseLength = settings.dataAddressFlushInterval})),
      m_publisher(std::make_unique<InstanceLoadPublisher>(
          model.getDDSModel(), model.getAnalyticsStorage(), settings.advertisedUrl,
          settings.loadPublishInterval, settings.nominalPacketsPerSecond))
{
    if (auto* analytics = m_model.getAnalyticsStorage()) {
        analytics->setOnCommitHandler(
            [recorder = m_recorder.get()](std::unordered_map<ZuUuid, ZuTimePeriodList> periods) {
                recorder->recordCommitted(periods);
            });
        analytics->setOnRetentionHandler(
            [recorder = m_recorder.get()](std::chrono::system_clock::time_point oldestKept) {
                recorder->setOldestKept(oldestKept);
            });
    }
    m_recorder->start();
    m_publisher->start();
    KEST_INFO(this,
              "Recording data addresses and load as %1: data addresses in leases of %2 ms, load "
              "every %3 ms",
              settings.advertisedUrl, settings.dataAddressFlushInterval.count(),
              settings.loadPublishInterval.count());
}

ClusterPresence::~ClusterPresence()
{
    if (auto* analytics = m_model.getAnalyticsStorage()) {
        // Nothing is saved any more (the View is gone): what is queued is committed now, and
        // recorded, rather than committed unrecorded while the Model stops.
        analytics->flush();
        analytics->setOnCommitHandler(nullptr);
        analytics->setOnRetentionHandler(nullptr);
    }
    m_recorder->stop();
    m_publisher->stop();
}

}  // namespace kest::cloud::storage::metadatadb
