#include "scripted_distribution.h"

#include "null_data_distribution_storage.h"

namespace kest::cloud::storage::metadatadb::test {

class ScriptedDistribution::Storage : public NullDataDistributionStorage
{
public:
    explicit Storage(std::shared_ptr<Script> script) : m_script(std::move(script)) {}

    void getStorageInfo(const std::vector<std::string>&, const ZuTimePeriod&,
                        MoveOnlyFunc<void(bool, std::vector<std::string>)> handler) override
    {
        std::unique_lock lock(m_script->mutex);
        const bool ok = m_script->lookupOk;
        auto addresses = m_script->addresses;
        lock.unlock();
        handler(ok, std::move(addresses));
    }
    void getInstancesLoad(MoveOnlyFunc<void(bool, std::vector<InstanseLoad>)> handler) override
    {
        std::unique_lock lock(m_script->mutex);
        auto loads = m_script->loads;
        lock.unlock();
        const bool ok = !loads.empty();
        handler(ok, std::move(loads));
    }

private:
    const std::shared_ptr<Script> m_script;
};

ScriptedDistribution::ScriptedDistribution()
{
    m_previous = DataDistribStorageFactory::instance().setCreateFunction(
        [script = m_script](const conf::MongoConnectionSettings&)
            -> std::unique_ptr<AbstractDataDistributionStorage> {
            return std::make_unique<Storage>(script);
        });
}

ScriptedDistribution::~ScriptedDistribution()
{
    DataDistribStorageFactory::instance().setCreateFunction(std::move(m_previous));
}

void ScriptedDistribution::setAddresses(std::vector<std::string> addresses, bool ok)
{
    std::lock_guard lock(m_script->mutex);
    m_script->addresses = std::move(addresses);
    m_script->lookupOk = ok;
}

void ScriptedDistribution::setLoads(std::vector<InstanseLoad> loads)
{
    std::lock_guard lock(m_script->mutex);
    m_script->loads = std::move(loads);
}

}  // namespace kest::cloud::storage::metadatadb::test
