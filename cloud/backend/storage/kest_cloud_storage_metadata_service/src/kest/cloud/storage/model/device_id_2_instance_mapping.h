#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include <kest/network/aio/timer.h>

namespace kest::cloud::storage::metadatadb {

class Model;

/**
 * Which devices are served by this instance and which by others, from the device-to-instance
 * records of the shared database. Kept in memory and refreshed incrementally on a timer: five
 * minutes after a successful update, one minute after a failed one.
 */
class DeviceId2InstanceMapping
{
public:
    /** One instance serving a device. */
    struct HostInfo
    {
        std::string host;
        bool healthStatus = false;
        std::chrono::system_clock::time_point lastUpdateTime;

        friend bool operator==(const HostInfo&, const HostInfo&) = default;
    };

    /** The mapping of one device to the instances serving it. */
    struct DeviceInfo
    {
        std::string vmsId;
        std::chrono::system_clock::time_point hostsInfoUpdateTime;
        std::vector<HostInfo> curHosts;

        friend bool operator==(const DeviceInfo&, const DeviceInfo&) = default;
    };

    using Update = std::vector<std::pair<std::string, DeviceInfo>>;

    /** Values of the cache's state. */
    static constexpr std::int32_t kNotInitialized = 0;
    /** Never entered by the cache itself; initializeCacheSync() starts no update in it. */
    static constexpr std::int32_t kInitializing = 1;
    static constexpr std::int32_t kUpToDate = 2;
    static constexpr std::int32_t kUpdateFailed = 3;
    static constexpr std::int32_t kUpdating = 4;

    static constexpr std::chrono::milliseconds kUpdatePeriod{300000};
    static constexpr std::chrono::milliseconds kRetryPeriod{60000};

    /** Starts no update; `ownHost` is compared byte for byte with the hosts of the records. */
    DeviceId2InstanceMapping(Model& model, std::string ownHost);
    /** Stops the timer and waits for an update in progress to finish with the cache. */
    ~DeviceId2InstanceMapping();

    DeviceId2InstanceMapping(const DeviceId2InstanceMapping&) = delete;
    DeviceId2InstanceMapping& operator=(const DeviceId2InstanceMapping&) = delete;

    /** Replaces kUpdatePeriod and kRetryPeriod for the timers armed from now on. */
    void setRefreshPeriods(std::chrono::milliseconds update, std::chrono::milliseconds retry);

    /** Up to date, or updating after an earlier success. */
    bool isCacheInitialized() const;

    /** Blocks until a first update has ended; whether the cache is now initialised. */
    bool initializeCacheSync();
    /** Forces one update and waits for it; joins an update already running. */
    void updateCacheSync();
    /** Starts an update; it ends on the storage's thread. */
    void updateCache();

    /** In no particular order. The cache must be initialised. */
    std::vector<std::string> curInstanceDeviceIds() const;
    std::vector<std::string> otherInstancesDeviceIds() const;
    /** The ids known to neither set, in the order given. The cache must be initialised. */
    std::vector<std::string> getMissingDeviceIds(const std::vector<std::string>& deviceIds) const;

private:
    /** Lets a storage completion that comes after the cache is gone find that out. */
    struct Lifetime
    {
        std::mutex mutex;
        DeviceId2InstanceMapping* cache = nullptr;
    };

    void doUpdateCache(std::chrono::system_clock::time_point updateStarted, bool ok, Update update);

    const std::string m_ownHost;
    // The epoch, so that the first update asks for every mapping.
    std::chrono::system_clock::time_point m_lastUpdateTime;
    std::unordered_set<std::string> m_curInstanceDeviceIds;
    std::unordered_set<std::string> m_otherInstancesDeviceIds;
    Model& m_model;
    std::atomic<std::int32_t> m_state{kNotInitialized};
    // Recursive: doUpdateCache() asks isCacheInitialized() while holding it, and a storage that
    // completes at once runs doUpdateCache() inside initializeCacheSync().
    mutable std::recursive_mutex m_mutex;
    std::condition_variable_any m_waitCondition;
    kest::network::aio::Timer m_timer;
    std::chrono::milliseconds m_updatePeriod = kUpdatePeriod;
    std::chrono::milliseconds m_retryPeriod = kRetryPeriod;
    std::shared_ptr<Lifetime> m_lifetime;
};

}  // namespace kest::cloud::storage::metadatadb
