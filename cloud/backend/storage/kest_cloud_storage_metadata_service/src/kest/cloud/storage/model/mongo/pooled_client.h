#pragma once

#include <string>

#include <mongoc/mongoc.h>

#include "collection.h"

namespace kest::cloud::storage::metadatadb::mongo {

/** A client leased from a ClientPool; goes back to the pool on destruction. */
class PooledClient
{
public:
    PooledClient(mongoc_client_pool_t* pool, mongoc_client_t* client);
    ~PooledClient();
    PooledClient(PooledClient&& other) noexcept;
    PooledClient& operator=(PooledClient&& other) noexcept;
    PooledClient(const PooledClient&) = delete;
    PooledClient& operator=(const PooledClient&) = delete;

    mongoc_client_t* get() const { return m_client; }

    /** The collection must not outlive this client. */
    Collection collection(const std::string& database, const std::string& name) const;

private:
    mongoc_client_pool_t* m_pool = nullptr;
    mongoc_client_t* m_client = nullptr;
};

}  // namespace kest::cloud::storage::metadatadb::mongo
