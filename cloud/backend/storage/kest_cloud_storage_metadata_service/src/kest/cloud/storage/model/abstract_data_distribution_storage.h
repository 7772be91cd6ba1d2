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

    /** What became of spans handed to appendDataAddresses. */
    struct AppendResult
    {
        /** The items that may not have been written, in the order given; empty on success. */
        std::vector<DataInfo> failed;
        /**
         * Whether the server refused the first of `failed` for its device's document (too large,
         * not of the expected shape), as opposed to a failure of the connection or the command:
         * retrying it next to other devices' spans would hold theirs back.
         */
        bool firstRefused = false;
    };

    /**
     * Appends the spans to their devices' documents with `host` as their node, as
     * saveDataAddress does, and tells the handler the outcome, success included, exactly once.
     * A storage that cannot reports every item as failed.
     */
    virtual void appendDataAddresses(const std::vector<DataInfo>& data, const std::string& /*host*/,
                                     MoveOnlyFunc<void(AppendResult)> handler)
    {
        handler({data, false});
    }

    /**
     * Every span whose node is `host` of the given devices, or of every device when none is
     * given, in stored order.
     */
    virtual void getDataAddresses(const std::string& /*host*/,
                                  const std::vector<std::string>& /*deviceIds*/,
                                  MoveOnlyFunc<void(bool, std::vector<DataInfo>)> handler)
    {
        handler(false, {});
    }

    /**
     * In the device's document, appends the `add` spans with `host` as their node, then, only
     * if that succeeded, removes every span equal to one of `remove` (same start, end and node)
     * in one update: spans that other instances append meanwhile are left alone. The handler
     * gets whether both steps succeeded.
     */
    virtual void replaceDataAddresses(const std::string& /*deviceId*/, const std::string& /*host*/,
                                      const std::vector<ZuTimePeriod>& /*add*/,
                                      const std::vector<ZuTimePeriod>& /*remove*/,
                                      MoveOnlyFunc<void(bool)> handler)
    {
        handler(false);
    }
};

}  // namespace kest::cloud::storage::metadatadb
