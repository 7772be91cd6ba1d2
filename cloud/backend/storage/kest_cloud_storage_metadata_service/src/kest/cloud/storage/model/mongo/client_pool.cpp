#include "client_pool.h"

#include "driver_instance.h"
#include "error.h"

namespace kest::cloud::storage::metadatadb::mongo {

ClientPool::ClientPool(const Uri& uri)
{
    DriverInstance::instance();
    bson_error_t error{};
    m_pool = mongoc_client_pool_new_with_error(uri.get(), &error);
    if (!m_pool)
        throw Error(error);
    // Version 2 tells server errors apart from client-side ones in bson_error_t domains.
    mongoc_client_pool_set_error_api(m_pool, MONGOC_ERROR_API_VERSION_2);
}

ClientPool::~ClientPool()
{
    if (m_pool)
        mongoc_client_pool_destroy(m_pool);
}

PooledClient ClientPool::pop()
{
    return PooledClient(m_pool, mongoc_client_pool_pop(m_pool));
}

}  // namespace kest::cloud::storage::metadatadb::mongo
