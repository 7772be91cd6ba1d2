#include "data_distrib_storage_factory.h"

#include <mutex>

#include "mongo_data_distribution_storage.h"

namespace kest::cloud::storage::metadatadb {

DataDistribStorageFactory::DataDistribStorageFactory()
    : m_createFunction([](const conf::MongoConnectionSettings& settings) {
          return std::unique_ptr<AbstractDataDistributionStorage>(
              std::make_unique<MongoDataDistributionStorage>(settings));
      })
{}

DataDistribStorageFactory& DataDistribStorageFactory::instance()
{
    static DataDistribStorageFactory factory;
    return factory;
}

std::unique_ptr<AbstractDataDistributionStorage> DataDistribStorageFactory::create(
    const conf::MongoConnectionSettings& settings)
{
    // Held during creation so that a concurrent replacement cannot destroy the running function.
    std::lock_guard lock(m_mutex);
    return m_createFunction(settings);
}

DataDistribStorageFactory::CreateFunction DataDistribStorageFactory::setCreateFunction(
    CreateFunction function)
{
    std::lock_guard lock(m_mutex);
    std::swap(m_createFunction, function);
    return function;
}

}  // namespace kest::cloud::storage::metadatadb
