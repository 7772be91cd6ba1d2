#include "null_data_distribution_storage.h"

namespace kest::cloud::storage::metadatadb::test {

void NullDataDistributionStorage::getStorageInfo(
    const std::vector<std::string>&, const ZuTimePeriod&,
    MoveOnlyFunc<void(bool, std::vector<std::string>)> handler)
{
    handler(false, {});
}

void NullDataDistributionStorage::saveDataAddress(const std::vector<DataInfo>&, const std::string&,
                                                  MoveOnlyFunc<void(std::vector<DataInfo>)>)
{}

void NullDataDistributionStorage::getInstancesLoad(
    MoveOnlyFunc<void(bool, std::vector<InstanseLoad>)> handler)
{
    handler(false, {});
}

void NullDataDistributionStorage::saveInstanceLoad(const InstanseLoad&) {}

void NullDataDistributionStorage::getDeviceInstancesMapping(
    std::chrono::system_clock::time_point, MoveOnlyFunc<void(bool, DeviceMapping)> handler)
{
    handler(false, {});
}

void NullDataDistributionStorage::saveInstanceLoadSync(const InstanseLoad&) {}

}  // namespace kest::cloud::storage::metadatadb::test
