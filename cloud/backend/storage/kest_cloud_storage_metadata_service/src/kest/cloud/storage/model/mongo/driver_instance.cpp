#include "driver_instance.h"

#include <mongoc/mongoc.h>

namespace kest::cloud::storage::metadatadb::mongo {

DriverInstance::DriverInstance()
{
    mongoc_init();
}

DriverInstance::~DriverInstance()
{
    mongoc_cleanup();
}

const DriverInstance& DriverInstance::instance()
{
    static DriverInstance driver;
    return driver;
}

}  // namespace kest::cloud::storage::metadatadb::mongo
