#include "model.h"

#include <kest/cloud/storage/settings.h>
#include <kest/utils/log/log.h>

#include "abstract_data_distribution_storage.h"
#include "data_distrib_storage_factory.h"
#include "dd_provider_factory.h"
#include "errors_storage_model.h"
#include "service_metrics.h"

namespace kest::cloud::storage::metadatadb {

Model::Model(const conf::Settings& settings)
    : m_metrics(std::make_unique<ServiceMetrics>()),
      m_dataDistributionStorage(
          DataDistribStorageFactory::instance().create(settings.ddsConnection())),
      m_errorsStorageModel(std::make_unique<ErrorsStorageModel>()),
      m_analyticsStorage(DdProviderFactory::instance().create()),
      m_peerTimeout(settings.cluster().peerTimeout),
      m_peerIdentity(PeerIdentity::fromSettings(settings))
{
    // A storage that fails to open only reports itself not ready: the service keeps answering
    // so that callers learn why their data is refused.
    if (m_analyticsStorage && !m_analyticsStorage->initialize(settings.analyticsDb()))
        KEST_ERROR(this, "Failed to initialize analytics db at %1", settings.analyticsDb().path);
}

Model::~Model()
{
    m_analyticsStorage.reset();
    m_errorsStorageModel.reset();
    m_dataDistributionStorage.reset();
    m_metrics.reset();
}

AbstractDataDistributionStorage* Model::getDDSModel() const
{
    return m_dataDistributionStorage.get();
}

ErrorsStorageModel* Model::getErrorStorageModel() const
{
    return m_errorsStorageModel.get();
}

kest::analytics::db::AbstractEventsStorage* Model::getAnalyticsStorage() const
{
    return m_analyticsStorage.get();
}

ServiceMetrics& Model::metrics() const
{
    return *m_metrics;
}

std::chrono::milliseconds Model::peerTimeout() const
{
    return m_peerTimeout;
}

}  // namespace kest::cloud::storage::metadatadb
