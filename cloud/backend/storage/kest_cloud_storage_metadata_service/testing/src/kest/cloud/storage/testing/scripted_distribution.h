#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kest/cloud/storage/model/data_distrib_storage_factory.h>

namespace kest::cloud::storage::metadatadb::test {

/**
 * While it lives, the data-distribution storages that the factory makes answer what the test
 * sets here, which it may change at any time: services started meanwhile search and choose
 * instances through it. Saves are dropped.
 */
class ScriptedDistribution
{
public:
    ScriptedDistribution();
    ~ScriptedDistribution();
    ScriptedDistribution(const ScriptedDistribution&) = delete;
    ScriptedDistribution& operator=(const ScriptedDistribution&) = delete;

    /** What every address lookup answers, whatever devices and period it names. */
    void setAddresses(std::vector<std::string> addresses, bool ok = true);
    /** The instance loads; none fails the lookup. */
    void setLoads(std::vector<InstanseLoad> loads);

private:
    struct Script
    {
        std::mutex mutex;
        bool lookupOk = true;
        std::vector<std::string> addresses;
        std::vector<InstanseLoad> loads;
    };
    class Storage;

    const std::shared_ptr<Script> m_script = std::make_shared<Script>();
    DataDistribStorageFactory::CreateFunction m_previous;
};

}  // namespace kest::cloud::storage::metadatadb::test
