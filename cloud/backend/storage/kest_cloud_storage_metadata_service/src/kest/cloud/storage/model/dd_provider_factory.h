#pragma once

#include <memory>

#include <kest/analytics_db/abstract_events_storage.h>
#include <kest/utils/move_only_func.h>
#include <kest/utils/mutex.h>

namespace kest::cloud::storage::metadatadb {

/**
 * Creates the analytics events storage. Process-wide, so that tests can put a fake in place
 * of the real storage before a service starts.
 */
class DdProviderFactory
{
public:
    using CreateFunction =
        kest::utils::MoveOnlyFunc<std::unique_ptr<kest::analytics::db::AbstractEventsStorage>()>;

    static DdProviderFactory& instance();

    std::unique_ptr<kest::analytics::db::AbstractEventsStorage> create();

    /** Returns the function that was in use, so that a test can put it back. */
    CreateFunction setCreateFunction(CreateFunction function);

private:
    DdProviderFactory();

    kest::Mutex m_mutex;
    CreateFunction m_createFunction;
};

}  // namespace kest::cloud::storage::metadatadb
