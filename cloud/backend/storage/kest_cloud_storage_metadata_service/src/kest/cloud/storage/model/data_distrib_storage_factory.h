#pragma once

#include <memory>

#include <kest/utils/move_only_func.h>
#include <kest/utils/mutex.h>

#include <kest/cloud/storage/mongo_connection_settings.h>

#include "abstract_data_distribution_storage.h"

namespace kest::cloud::storage::metadatadb {

/**
 * Creates the data-distribution storage. Process-wide, so that tests can put a fake in place of
 * MongoDB before a service starts.
 */
class DataDistribStorageFactory
{
public:
    using CreateFunction =
        kest::utils::MoveOnlyFunc<std::unique_ptr<AbstractDataDistributionStorage>(
            const conf::MongoConnectionSettings&)>;

    static DataDistribStorageFactory& instance();

    /** Throws what the creation function throws (a bad connection string). */
    std::unique_ptr<AbstractDataDistributionStorage> create(
        const conf::MongoConnectionSettings& settings);

    /** Returns the function that was in use, so that a test can put it back. */
    CreateFunction setCreateFunction(CreateFunction function);

private:
    DataDistribStorageFactory();

    kest::Mutex m_mutex;
    CreateFunction m_createFunction;
};

}  // namespace kest::cloud::storage::metadatadb
