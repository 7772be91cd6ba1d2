#include "pooled_client.h"

#include <utility>

namespace kest::cloud::storage::metadatadb::mongo {

PooledClient::PooledClient(mongoc_client_pool_t* pool, mongoc_client_t* client)
    : m_pool(pool), m_client(client)
{}

PooledClient::~PooledClient()
{
    if (m_pool && m_client)
        mongoc_client_pool_push(m_pool, m_client);
}

PooledClient::PooledClient(PooledClient&& other) noexcept
    : m_pool(std::exchange(other.m_pool, nullptr)), m_client(std::exchange(other.m_client, nullptr))
{}

PooledClient& PooledClient::operator=(PooledClient&& other) noexcept
{
    std::swap(m_pool, other.m_pool);
    std::swap(m_client, other.m_client);
    return *this;
}

Collection PooledClient::collection(const std::string& database, const std::string& name) const
{
    return Collection(mongoc_client_get_collection(m_client, database.c_str(), name.c_str()));
}

}  // namespace kest::cloud::storage::metadatadb::mongo
