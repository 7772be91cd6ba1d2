#include "client_factory.h"

#include <mutex>
#include <utility>

#include <kest/utils/assert.h>

#include "client.h"

namespace kest::cloud::storage::metadatadb::api {

ClientFactory::ClientFactory()
    : m_createFunction([](const kest::utils::Url& url) -> std::unique_ptr<AbstractClient> {
          return std::make_unique<Client>(url);
      })
{}

ClientFactory& ClientFactory::instance()
{
    static ClientFactory factory;
    return factory;
}

std::unique_ptr<AbstractClient> ClientFactory::create(const kest::utils::Url& url)
{
    std::lock_guard lock(m_mutex);
    if (!KEST_ASSERT(m_createFunction, "No API client creation function is set"))
        return nullptr;
    return m_createFunction(url);
}

ClientFactory::CreateFunction ClientFactory::setCreateFunction(CreateFunction function)
{
    std::lock_guard lock(m_mutex);
    return std::exchange(m_createFunction, std::move(function));
}

}  // namespace kest::cloud::storage::metadatadb::api
