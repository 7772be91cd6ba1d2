#pragma once

// The base of the data-distribution storages that tests and benchmarks put in MongoDB's place.

#include <kest/cloud/storage/model/abstract_data_distribution_storage.h>

namespace kest::cloud::storage::metadatadb::test {

/** Every lookup fails and every save is dropped; a stand-in overrides what it plays. */
class NullDataDistributionStorage : public AbstractDataDistributionStorage
{
public:
    void getStorageInfo(const std::vector<std::string>&, const ZuTimePeriod&,
                        MoveOnlyFunc<void(bool, std::vector<std::string>)> handler) override
    {
        handler(false, {});
    }
    void saveDataAddress(const std::vector<DataInfo>&, const std::string&,
                         MoveOnlyFunc<void(std::vector<DataInfo>)>) override
    {}
    void getInstancesLoad(MoveOnlyFunc<void(bool, std::vector<InstanseLoad>)> handler) override
    {
        handler(false, {});
    }
    void saveInstanceLoad(const InstanseLoad&) override {}
    void getDeviceInstancesMapping(std::chrono::system_clock::time_point,
                                   MoveOnlyFunc<void(bool, DeviceMapping)> handler) override
    {
        handler(false, {});
    }
    void saveInstanceLoadSync(const InstanseLoad&) override {}
};

}  // namespace kest::cloud::storage::metadatadb::test
