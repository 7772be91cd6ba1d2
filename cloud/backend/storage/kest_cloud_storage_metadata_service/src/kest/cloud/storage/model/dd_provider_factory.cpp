#include "dd_provider_factory.h"

#include <mutex>

#include <kest/analytics_db/events_storage.h>
#include <kest/utils/assert.h>

namespace kest::cloud::storage::metadatadb {

DdProviderFactory::DdProviderFactory()
    : m_createFunction([]() -> std::unique_ptr<kest::analytics::db::AbstractEventsStorage> {
          return std::make_unique<kest::analytics::db::EventsStorage>();
      })
{}

DdProviderFactory& DdProviderFactory::instance()
{
    static DdProviderFactory factory;
    return factory;
}

std::unique_ptr<kest::analytics::db::AbstractEventsStorage> DdProviderFactory::create()
{
    std::lock_guard lock(m_mutex);
    if (!KEST_ASSERT(m_createFunction, "No analytics storage creation function is set"))
        return nullptr;
    return m_createFunction();
}

DdProviderFactory::CreateFunction DdProviderFactory::setCreateFunction(CreateFunction function)
{
    std::lock_guard lock(m_mutex);
    return std::exchange(m_createFunction, std::move(function));
}

}  // namespace kest::cloud::storage::metadatadb
