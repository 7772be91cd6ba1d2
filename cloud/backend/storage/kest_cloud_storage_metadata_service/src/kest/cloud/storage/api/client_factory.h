#pragma once

#include <memory>

#include <kest/utils/move_only_func.h>
#include <kest/utils/mutex.h>
#include <kest/utils/url.h>

#include "abstract_client.h"

namespace kest::cloud::storage::metadatadb::api {

/**
 * Makes the API clients of the process: by default a new Client for the URL. Process-wide, so
 * that tests and embedding programs can put clients of their own in place.
 */
class ClientFactory
{
public:
    using CreateFunction =
        kest::utils::MoveOnlyFunc<std::unique_ptr<AbstractClient>(const kest::utils::Url&)>;

    static ClientFactory& instance();

    /** Null, after an assertion failure, when no function is set. */
    std::unique_ptr<AbstractClient> create(const kest::utils::Url& url);

    /** Returns the function that was in use, so that a test can put it back. */
    CreateFunction setCreateFunction(CreateFunction function);

private:
    ClientFactory();

    kest::Mutex m_mutex;
    CreateFunction m_createFunction;
};

}  // namespace kest::cloud::storage::metadatadb::api
