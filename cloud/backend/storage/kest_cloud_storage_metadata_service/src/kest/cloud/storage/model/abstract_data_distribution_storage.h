#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <kest/utils/move_only_func.h>
#include <kest/vms_common/zu_time_period.h>

#include "data_info.h"
#include "device_id_2_instance_mapping.h"
#include "instanse_load.h"

namespace kest::cloud::storage::metadatadb {

/**
 * The cluster-wide record of where device data lives, how loaded each instance is and which
 * instances serve which devices. Every operation completes through its handler, on a thread of
 * the storage.
 */
class AbstractDataDistributionStorage
{
public:
    template <typename Signature>
    using MoveOnlyFunc = kest::utils::MoveOnlyFunc<Signature>;
    using DeviceMapping = std::vector<std::pair<std::string, DeviceId2InstanceMapping::DeviceInfo>>;

    /** The nodes holding spans of these devices that overlap the period, once per span. */
    virtual void getStorageInfo(const std::vector<std::string>& deviceIds,
                                const ZuTimePeriod& period,
                                MoveOnlyFunc<void(bool, std::vector<std::string>)> handler) = 0;

    /** The handler hears only of failure, with every item of the batch. */
    virtual void saveDataAddress(const std::vector<DataInfo>& data, const std::string& host,
                                 MoveOnlyFunc<void(std::vector<DataInfo>)> handler) = 0;

    virtual void getInstancesLoad(MoveOnlyFunc<void(bool, std::vector<InstanseLoad>)> handler) = 0;

    /** The outcome is only logged. */
    virtual void saveInstanceLoad(const InstanseLoad& load) = 0;

    /** The mappings changed at or after `since`. */
    virtual void getDeviceInstancesMapping(std::chrono::system_clock::time_point since,
                                           MoveOnlyFunc<void(bool, DeviceMapping)> handler) = 0;

    virtual ~AbstractDataDistributionStorage() = default;

    virtual void saveInstanceLoadSync(const InstanseLoad& load) = 0;

    /**
     * Failed operations since the start, by operation name; read at any time from any thread. A
     * storage that counts none reports nothing.
     */
    virtual std::vector<std::pair<std::string, std::uint64_t>> operationFailures() const
    {
        return {};
    }
};

}  // namespace kest::cloud::storage::metadatadb
