#include "device_id_2_instance_mapping.h"

#include <algorithm>

#include <kest/utils/assert.h>
#include <kest/utils/log/log.h>

#include "abstract_data_distribution_storage.h"
#include "model.h"

namespace kest::cloud::storage::metadatadb {

DeviceId2InstanceMapping::DeviceId2InstanceMapping(Model& model, std::string ownHost)
    : m_ownHost(std::move(ownHost)), m_model(model), m_lifetime(std::make_shared<Lifetime>())
{
    m_lifetime->cache = this;
}

DeviceId2InstanceMapping::~DeviceId2InstanceMapping()
{
    {
        // Waits for an update that is finishing now; later completions find no cache.
        std::lock_guard lock(m_lifetime->mutex);
        m_lifetime->cache = nullptr;
    }
    m_timer.pleaseStopSync();
}

void DeviceId2InstanceMapping::setRefreshPeriods(std::chrono::milliseconds update,
                                                 std::chrono::milliseconds retry)
{
    std::lock_guard lock(m_mutex);
    m_updatePeriod = update;
    m_retryPeriod = retry;
}

bool DeviceId2InstanceMapping::isCacheInitialized() const
{
    std::lock_guard lock(m_mutex);
    const auto state = m_state.load();
    return state == kUpToDate || state == kUpdating;
}

bool DeviceId2InstanceMapping::initializeCacheSync()
{
    if (isCacheInitialized())
        return true;
    {
        std::unique_lock lock(m_mutex);
        if (m_state.load() != kInitializing)
            updateCache();
        m_waitCondition.wait(lock, [this]() { return m_state.load() != kUpdating; });
    }
    return isCacheInitialized();
}

void DeviceId2InstanceMapping::updateCacheSync()
{
    std::unique_lock lock(m_mutex);
    if (m_state.load() != kUpdating) {
        // Not held while the update starts: a storage may complete it on another thread at once.
        lock.unlock();
        updateCache();
        KEST_ASSERT(!lock.owns_lock(), "!m_isLocked");
        lock.lock();
    }
    m_waitCondition.wait(lock, [this]() { return m_state.load() != kUpdating; });
}

void DeviceId2InstanceMapping::updateCache()
{
    m_state.store(kUpdating);
    const auto updateStarted = std::chrono::system_clock::now();
    std::chrono::system_clock::time_point since;
    {
        std::lock_guard lock(m_mutex);
        since = m_lastUpdateTime;
    }
    m_model.getDDSModel()->getDeviceInstancesMapping(
        since, [lifetime = m_lifetime, updateStarted](bool ok, Update update) {
            std::lock_guard lock(lifetime->mutex);
            if (lifetime->cache)
                lifetime->cache->doUpdateCache(updateStarted, ok, std::move(update));
        });
}

void DeviceId2InstanceMapping::doUpdateCache(std::chrono::system_clock::time_point updateStarted,
                                             bool ok, Update update)
{
    std::lock_guard lock(m_mutex);
    if (!ok) {
        KEST_ERROR(this, "DeviceId2InstanceMapping cache update failed");
        if (isCacheInitialized())
            m_state.store(kUpdateFailed);
        m_waitCondition.notify_all();
        m_timer.start(m_retryPeriod, [this]() { updateCache(); });
        return;
    }

    m_lastUpdateTime = updateStarted;
    for (auto& [deviceId, info] : update) {
        const bool servedHere = std::ranges::count(info.curHosts, m_ownHost, &HostInfo::host) > 0;
        if (servedHere) {
            m_curInstanceDeviceIds.insert(deviceId);
            m_otherInstancesDeviceIds.erase(deviceId);
        } else {
            m_otherInstancesDeviceIds.insert(deviceId);
            m_curInstanceDeviceIds.erase(deviceId);
        }
    }
    m_state.store(kUpToDate);
    m_waitCondition.notify_all();
    m_timer.start(m_updatePeriod, [this]() { updateCache(); });
}

namespace {

std::vector<std::string> toVector(const std::unordered_set<std::string>& ids)
{
    return {ids.begin(), ids.end()};
}

}  // namespace

std::vector<std::string> DeviceId2InstanceMapping::curInstanceDeviceIds() const
{
    KEST_ASSERT(isCacheInitialized());
    std::lock_guard lock(m_mutex);
    return toVector(m_curInstanceDeviceIds);
}

std::vector<std::string> DeviceId2InstanceMapping::otherInstancesDeviceIds() const
{
    KEST_ASSERT(isCacheInitialized());
    std::lock_guard lock(m_mutex);
    return toVector(m_otherInstancesDeviceIds);
}

std::vector<std::string> DeviceId2InstanceMapping::getMissingDeviceIds(
    const std::vector<std::string>& deviceIds) const
{
    KEST_ASSERT(isCacheInitialized());
    std::lock_guard lock(m_mutex);
    std::vector<std::string> missing;
    for (const auto& id : deviceIds) {
        if (!m_curInstanceDeviceIds.contains(id) && !m_otherInstancesDeviceIds.contains(id))
            missing.push_back(id);
    }
    return missing;
}

}  // namespace kest::cloud::storage::metadatadb
