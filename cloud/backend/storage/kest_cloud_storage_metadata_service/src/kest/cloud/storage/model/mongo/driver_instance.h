#pragma once

namespace kest::cloud::storage::metadatadb::mongo {

/**
 * The driver's once-per-process initialisation: mongoc_init() when first needed, and
 * mongoc_cleanup() at exit, after every static that was created later.
 */
class DriverInstance
{
public:
    static const DriverInstance& instance();

    ~DriverInstance();
    DriverInstance(const DriverInstance&) = delete;
    DriverInstance& operator=(const DriverInstance&) = delete;

private:
    DriverInstance();
};

}  // namespace kest::cloud::storage::metadatadb::mongo
