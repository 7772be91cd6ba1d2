#pragma once

// A data-distribution storage whose lookups answer what the test set, put into the factory for
// the life of a guard: services started meanwhile search and choose instances through it.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kest/cloud/storage/model/data_distrib_storage_factory.h>

#include "null_data_distribution_storage.h"

namespace kest::cloud::storage::metadatadb::test {

/** What the scripted storage answers; shared with the test, which may change it at any time. */
class DistributionScript
{
public:
    void setAddresses(std::vector<std::string> addresses, bool ok = true)
    {
        std::lock_guard lock(m_mutex);
        m_addresses = std::move(addresses);
        m_lookupOk = ok;
    }
    void setLoads(std::vector<InstanseLoad> loads)
    {
        std::lock_guard lock(m_mutex);
        m_loads = std::move(loads);
    }
    std::pair<bool, std::vector<std::string>> addresses() const
    {
        std::lock_guard lock(m_mutex);
        return {m_lookupOk, m_addresses};
    }
    std::vector<InstanseLoad> loads() const
    {
        std::lock_guard lock(m_mutex);
        return m_loads;
    }

private:
    mutable std::mutex m_mutex;
    bool m_lookupOk = true;
    std::vector<std::string> m_addresses;
    std::vector<InstanseLoad> m_loads;
};

class ScriptedDistributionStorage : public NullDataDistributionStorage
{
public:
    explicit ScriptedDistributionStorage(std::shared_ptr<const DistributionScript> script)
        : m_script(std::move(script))
    {}

    void getStorageInfo(const std::vector<std::string>&, const ZuTimePeriod&,
                        MoveOnlyFunc<void(bool, std::vector<std::string>)> handler) override
    {
        auto [ok, addresses] = m_script->addresses();
        handler(ok, std::move(addresses));
    }
    void getInstancesLoad(MoveOnlyFunc<void(bool, std::vector<InstanseLoad>)> handler) override
    {
        auto loads = m_script->loads();
        const bool ok = !loads.empty();
        handler(ok, std::move(loads));
    }

private:
    std::shared_ptr<const DistributionScript> m_script;
};

/** Makes the factory produce scripted storages until destroyed. */
class ScriptedDistributionGuard
{
public:
    ScriptedDistributionGuard()
    {
        m_previous = DataDistribStorageFactory::instance().setCreateFunction(
            [script = script](const conf::MongoConnectionSettings&)
                -> std::unique_ptr<AbstractDataDistributionStorage> {
                return std::make_unique<ScriptedDistributionStorage>(script);
            });
    }
    ~ScriptedDistributionGuard()
    {
        DataDistribStorageFactory::instance().setCreateFunction(std::move(m_previous));
    }
    ScriptedDistributionGuard(const ScriptedDistributionGuard&) = delete;
    ScriptedDistributionGuard& operator=(const ScriptedDistributionGuard&) = delete;

    const std::shared_ptr<DistributionScript> script = std::make_shared<DistributionScript>();

private:
    DataDistribStorageFactory::CreateFunction m_previous;
};

}  // namespace kest::cloud::storage::metadatadb::test
