#pragma once

#include <kest/cloud/storage/model/abstract_data_distribution_storage.h>

namespace kest::cloud::storage::metadatadb::test {

/**
 * The base of the data-distribution storages that tests and benchmarks put in MongoDB's place:
 * every lookup fails and every save is dropped; a stand-in overrides what it plays.
 */
class NullDataDistributionStorage : public AbstractDataDistributionStorage
{
public:
    void getStorageInfo(const std::vector<std::string>& deviceIds, const ZuTimePeriod& period,
                        MoveOnlyFunc<void(bool, std::vector<std::string>)> handler) override;
    void saveDataAddress(const std::vector<DataInfo>& data, const std::string& host,
                         MoveOnlyFunc<void(std::vector<DataInfo>)> handler) override;
    void getInstancesLoad(MoveOnlyFunc<void(bool, std::vector<InstanseLoad>)> handler) override;
    void saveInstanceLoad(const InstanseLoad& load) override;
    void getDeviceInstancesMapping(std::chrono::system_clock::time_point since,
                                   MoveOnlyFunc<void(bool, DeviceMapping)> handler) override;
    void saveInstanceLoadSync(const InstanseLoad& load) override;
};

}  // namespace kest::cloud::storage::metadatadb::test
