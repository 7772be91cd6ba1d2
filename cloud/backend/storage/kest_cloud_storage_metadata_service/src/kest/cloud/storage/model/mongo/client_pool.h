#pragma once

#include <mongoc/mongoc.h>

#include "pooled_client.h"
#include "uri.h"

namespace kest::cloud::storage::metadatadb::mongo {

/** The driver's thread-safe pool of clients; the pool bounds come from the URI. */
class ClientPool
{
public:
    /** Throws mongo::Error when the driver refuses the URI for pooling. */
    explicit ClientPool(const Uri& uri);
    ~ClientPool();
    ClientPool(const ClientPool&) = delete;
    ClientPool& operator=(const ClientPool&) = delete;

    /** Blocks while maxPoolSize clients are out. */
    PooledClient pop();

private:
    mongoc_client_pool_t* m_pool = nullptr;
};

}  // namespace kest::cloud::storage::metadatadb::mongo
